# The coverage of the five modules by every test that was run: `cmake --workflow --preset coverage`.
# Branches that only an exception of the standard library takes are left out.
find_program(GCOVR gcovr REQUIRED)
add_custom_target(coverage
  COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --object-directory ${PROJECT_BINARY_DIR}
    --filter ${PROJECT_SOURCE_DIR}/common/ --filter ${PROJECT_SOURCE_DIR}/dataset/
    --filter ${PROJECT_SOURCE_DIR}/fingerprint/ --filter ${PROJECT_SOURCE_DIR}/pipeline/
    --filter ${PROJECT_SOURCE_DIR}/serializer/
    --exclude-throw-branches --exclude-unreachable-branches
    --print-summary --fail-under-line 100 --fail-under-branch 95
  WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
  VERBATIM)
