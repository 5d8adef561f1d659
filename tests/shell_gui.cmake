# Script tests of the player's programs: lumetta-serve over HTTP, real PHP
# applications served by it, and the windowed player under a virtual X
# server. A script skips (exit 77) when what it needs is not installed.

# lumetta_script_tests(PREFIX SCRIPT TARGET LABELS TIMEOUT SERIAL CASE...):
# one test PREFIX_CASE per case, running tests/gui/SCRIPT with the target's
# folder, the source folder and the case.
function(lumetta_script_tests prefix script target labels timeout serial)
  foreach(case ${ARGN})
    add_test(NAME ${prefix}_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/${script}
              $<TARGET_FILE_DIR:${target}> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(${prefix}_${case} PROPERTIES
      LABELS "${labels}" SKIP_RETURN_CODE 77 TIMEOUT ${timeout} RUN_SERIAL ${serial})
  endforeach()
endfunction()

if(TARGET lumetta-serve)
  lumetta_script_tests(shell_serve serve_test.sh lumetta-serve shell_serve 120 OFF
                       demo port-search key-php workers-off options)
  # DokuWiki and phpLiteAdmin from Debian's packages (scripts/setup.sh test).
  lumetta_script_tests(php_app php_apps.sh lumetta-serve shell_serve 120 OFF
                       dokuwiki phpliteadmin)
endif()
if(TARGET lumetta AND WIN32)
  # The Windows player under wine (the tests need no emulator of their own).
  lumetta_script_tests(shell_wine wine_player_test.sh lumetta shell_gui 120 ON
                       window fading missing-ini)
elseif(TARGET lumetta)
  lumetta_script_tests(shell_gui player_test.sh lumetta "nosan;shell_gui" 180 ON
                       window no-statusbar borderless port-taken bad-options demo off-screen)
endif()
