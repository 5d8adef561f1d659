# Script tests of the player's programs: lumetta-serve over HTTP, and the
# windowed player under a virtual X server (skipped without xvfb-run).
if(TARGET lumetta-serve)
  foreach(case demo port-search options)
    add_test(NAME shell_serve_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/serve_test.sh
              $<TARGET_FILE_DIR:lumetta-serve> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(shell_serve_${case} PROPERTIES
      LABELS "shell_serve" SKIP_RETURN_CODE 77 TIMEOUT 120)
  endforeach()
endif()
if(TARGET lumetta AND WIN32)
  # The Windows player under wine (the tests need no emulator of their own).
  foreach(case window fading missing-ini)
    add_test(NAME shell_wine_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/wine_player_test.sh
              $<TARGET_FILE_DIR:lumetta> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(shell_wine_${case} PROPERTIES
      LABELS "shell_gui" SKIP_RETURN_CODE 77 TIMEOUT 120 RUN_SERIAL ON)
  endforeach()
elseif(TARGET lumetta)
  foreach(case window no-statusbar borderless port-taken bad-options demo)
    add_test(NAME shell_gui_${case}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/player_test.sh
              $<TARGET_FILE_DIR:lumetta> ${CMAKE_SOURCE_DIR} ${case})
    set_tests_properties(shell_gui_${case} PROPERTIES
      LABELS "nosan;shell_gui" SKIP_RETURN_CODE 77 TIMEOUT 180 RUN_SERIAL ON)
  endforeach()
endif()
