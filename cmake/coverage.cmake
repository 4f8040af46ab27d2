# The coverage of the five modules by every test that was run: `cmake --workflow --preset coverage`.
# Branches that only an exception of the standard library takes are left out. gcov writes negative
# counts for calls from which a forked test process never returned; such lines say nothing of
# coverage and are passed over. The one loop that never ends is marked in its source.
find_program(GCOVR gcovr REQUIRED)
add_custom_target(coverage
  COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --object-directory ${PROJECT_BINARY_DIR}
    --filter ${PROJECT_SOURCE_DIR}/common/ --filter ${PROJECT_SOURCE_DIR}/dataset/
    --filter ${PROJECT_SOURCE_DIR}/fingerprint/ --filter ${PROJECT_SOURCE_DIR}/pipeline/
    --filter ${PROJECT_SOURCE_DIR}/serializer/
    --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors
    --print-summary --fail-under-line 100 --fail-under-branch 95
  WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
  VERBATIM)
