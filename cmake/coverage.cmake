# The coverage by every test that was run: `cmake --workflow --preset coverage`. Two requirements,
# printed and tested one after the other: of the five modules, and of the replication engine with
# what it stands on.
# Branches that only an exception of the standard library takes are left out. gcov writes negative
# counts for calls from which a forked test process never returned; such lines say nothing of
# coverage and are passed over. The one loop that never ends is marked in its source.
find_program(GCOVR gcovr REQUIRED)

function(penstock_require_coverage name lines branches)
  set(filters)
  foreach(folder ${ARGN})
    list(APPEND filters --filter ${PROJECT_SOURCE_DIR}/${folder}/)
  endforeach()
  add_custom_target(coverage-${name}
    COMMAND ${CMAKE_COMMAND} -E echo "--- coverage: ${name}"
    COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --object-directory ${PROJECT_BINARY_DIR}
      ${filters}
      --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors
      --print-summary --fail-under-line ${lines} --fail-under-branch ${branches}
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    VERBATIM)
endfunction()

penstock_require_coverage(library 100 95 common dataset fingerprint pipeline serializer)
add_custom_target(coverage)
add_dependencies(coverage coverage-library)
if(TARGET penstock_engine)
  penstock_require_coverage(engine 95 85 engine codec)
  add_dependencies(coverage-engine coverage-library)  # one after the other
  add_dependencies(coverage coverage-engine)
endif()
