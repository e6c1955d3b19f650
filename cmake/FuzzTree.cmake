# The fuzz targets need clang and its sanitizer runtimes, while the program and
# the tests are built with the project's usual compiler. So the main build
# configures and builds a second tree of its own, build/fuzz-tree, with clang
# and SENSORLAY_FUZZ=ON (only the libraries the targets link), and the tests
# replay every seed and every saved finding through the targets there.
#
# Included from the top CMakeLists.txt when the tests are built.

include(ExternalProject)
include(${CMAKE_SOURCE_DIR}/fuzz/targets.cmake)

find_program(SENSORLAY_CLANGXX NAMES clang++ clang++-14)
if(NOT SENSORLAY_CLANGXX)
  message(FATAL_ERROR "clang++ is needed for the fuzz targets (scripts/install-deps.sh installs it); "
                      "or configure with -DSENSORLAY_FUZZ_REPLAY=OFF")
endif()

set(SENSORLAY_FUZZ_TREE ${CMAKE_BINARY_DIR}/fuzz-tree)
ExternalProject_Add(fuzz_tree
  SOURCE_DIR ${CMAKE_SOURCE_DIR}
  BINARY_DIR ${SENSORLAY_FUZZ_TREE}
  PREFIX ${CMAKE_BINARY_DIR}/fuzz-tree-steps
  CMAKE_ARGS -DCMAKE_CXX_COMPILER=${SENSORLAY_CLANGXX}
             -DCMAKE_BUILD_TYPE=Release
             -DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}
             -DSENSORLAY_FUZZ=ON
  INSTALL_COMMAND ""
  # The tree's own build decides what is out of date.
  BUILD_ALWAYS ON)

foreach(target ${SENSORLAY_FUZZ_TARGETS})
  add_test(NAME fuzz.${target}
    COMMAND bash ${CMAKE_SOURCE_DIR}/fuzz/replay.sh ${SENSORLAY_FUZZ_TREE}/fuzz/${target}_fuzz
            ${CMAKE_SOURCE_DIR}/fuzz/corpus/${target} ${CMAKE_SOURCE_DIR}/fuzz/crashes/${target})
  set_tests_properties(fuzz.${target} PROPERTIES TIMEOUT 300)
endforeach()
