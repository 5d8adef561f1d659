# libFuzzer targets, one per tests/fuzz/fuzz_*.cpp, each with a seed corpus
# in tests/fuzz/corpus/NAME. CTest runs each for a short fixed budget (label
# "fuzz"); new inputs go to the build tree, the seeds stay as they are.
if(LUMETTA_FUZZ)
  set(LUMETTA_FUZZ_SECONDS 20 CACHE STRING "Seconds each fuzz target runs under CTest")
  file(GLOB fuzzers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/fuzz_*.cpp)
  foreach(src ${fuzzers})
    get_filename_component(name ${src} NAME_WE)
    string(REGEX REPLACE "^fuzz_" "" corpus ${name})
    add_executable(${name} ${src})
    target_link_libraries(${name} PRIVATE lumetta_testsupport_servers)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set(work ${CMAKE_CURRENT_BINARY_DIR}/fuzz-corpus/${corpus})
    file(MAKE_DIRECTORY ${work})
    add_test(NAME ${name}
      COMMAND ${name} -max_total_time=${LUMETTA_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=1024
              ${work} ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus/${corpus})
    set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 300)
  endforeach()
endif()
