# Flags as interface targets, never for a whole directory.

# What every target of the project is compiled with.
add_library(penstock_flags INTERFACE)
target_compile_features(penstock_flags INTERFACE cxx_std_20)
if(PENSTOCK_DEVELOPER OR PENSTOCK_FUZZ)
  target_compile_options(penstock_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
    -Wswitch-enum -Werror)
endif()
if(PENSTOCK_SANITIZE)
  target_compile_options(penstock_flags INTERFACE
    -fsanitize=${PENSTOCK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(penstock_flags INTERFACE -fsanitize=${PENSTOCK_SANITIZE})
endif()
if(PENSTOCK_FUZZ)
  # Coverage of every file guides the fuzzer; the harnesses link its main program.
  target_compile_options(penstock_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# What the library itself is also compiled with, when its coverage is measured.
add_library(penstock_coverage INTERFACE)
if(PENSTOCK_COVERAGE)
  target_compile_options(penstock_coverage INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(penstock_coverage INTERFACE --coverage)
endif()

# Several files as one: their headers are most of what compiling, and checking, the program costs.
option(PENSTOCK_UNITY "Compile the program and its tests several files at a time" OFF)
function(penstock_in_batches)
  set_target_properties(${ARGN} PROPERTIES
    UNITY_BUILD ${PENSTOCK_UNITY} UNITY_BUILD_BATCH_SIZE 24
    UNITY_BUILD_CODE_BEFORE_INCLUDE "// NOLINTNEXTLINE(bugprone-suspicious-include)")
  # g++ takes a private structure with a member of an unnamed namespace for a header's.
  if(PENSTOCK_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    foreach(target ${ARGN})
      target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
    endforeach()
  endif()
endfunction()

# One module of the library: an object library of position-independent code with hidden symbols.
function(penstock_module name)
  add_library(penstock_${name} OBJECT ${ARGN})
  target_include_directories(penstock_${name} PRIVATE
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/include)
  target_link_libraries(penstock_${name} PRIVATE penstock_flags penstock_coverage)
  set_target_properties(penstock_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# Lets `target` export what the version script `map` lists and nothing else.
function(penstock_export_only target map)
  target_link_options(${target} PRIVATE
    LINKER:--version-script=${PROJECT_SOURCE_DIR}/${map} $<$<BOOL:${PENSTOCK_COVERAGE}>:--coverage>)
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/${map})
endfunction()
