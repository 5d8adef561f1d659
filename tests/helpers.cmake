# The child program the pipe stream and gateway tests start. It is
# built without sanitizers: a crash must end it by its signal, not by a
# sanitizer report. On Windows it carries its run-time inside, like the
# programs themselves.
add_executable(pipe_helper ${CMAKE_CURRENT_SOURCE_DIR}/helpers/pipe_helper.cpp)
set(helper_link_options "")
if(MINGW)
  set(helper_link_options "-static")
endif()
set_target_properties(pipe_helper PROPERTIES
  COMPILE_OPTIONS "-Wall;-Wextra"
  LINK_OPTIONS "${helper_link_options}"
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/helpers)
foreach(t test_cpipestream test_cgiwrapper)
  if(TARGET ${t})
    add_dependencies(${t} pipe_helper)
  endif()
endforeach()
if(TARGET lumetta_testsupport)
  target_compile_definitions(lumetta_testsupport PRIVATE
    LUMETTA_HELPER_DIR="${CMAKE_BINARY_DIR}/tests/helpers")
endif()

# Holds a PHP worker pool until it is killed (the pool's no-orphans test).
if(TARGET lumetta_engines)
  add_executable(pool_helper ${CMAKE_CURRENT_SOURCE_DIR}/helpers/pool_helper.cpp)
  target_link_libraries(pool_helper PRIVATE lumetta_engines)
  set_target_properties(pool_helper PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/helpers)
  if(TARGET test_phppool)
    add_dependencies(test_phppool pool_helper)
  endif()
endif()

# Windows builds: php-cgi.exe standing in for PHP for Windows, which wine
# lacks; it relays each run to the host's php-cgi (helpers/php_relay.py,
# started by scripts/wine-tests.sh). Alone in its directory, which the wine
# runs put on the search path.
if(MINGW)
  add_executable(php_standin ${CMAKE_CURRENT_SOURCE_DIR}/helpers/php_standin.cpp)
  target_link_libraries(php_standin PRIVATE ws2_32)
  set_target_properties(php_standin PROPERTIES
    OUTPUT_NAME php-cgi
    COMPILE_OPTIONS "-Wall;-Wextra"
    LINK_OPTIONS "-static"
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/php-standin)
endif()
