# Script tests of the player's programs: lumetta-serve over HTTP, and the
# windowed player under a virtual X server (skipped without xvfb-run).
if(TARGET lumetta-serve)
  foreach(case demo port-search key-php options)
    add_test(NAME shell_serve_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/serve_test.sh
              $<TARGET_FILE_DIR:lumetta-serve> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(shell_serve_${case} PROPERTIES
      LABELS "shell_serve" SKIP_RETURN_CODE 77 TIMEOUT 120)
  endforeach()
endif()
if(TARGET lumetta)
  foreach(case window no-statusbar borderless port-taken bad-options demo)
    add_test(NAME shell_gui_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/player_test.sh
              $<TARGET_FILE_DIR:lumetta> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(shell_gui_${case} PROPERTIES
      LABELS "nosan;shell_gui" SKIP_RETURN_CODE 77 TIMEOUT 180 RUN_SERIAL ON)
  endforeach()
endif()
