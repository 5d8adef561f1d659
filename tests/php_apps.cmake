# Real PHP applications from Debian's packages served by lumetta-serve
# (skipped when a package is missing; scripts/setup.sh test installs them).
if(TARGET lumetta-serve)
  foreach(app dokuwiki phpliteadmin)
    add_test(NAME php_app_${app}
      COMMAND bash ${CMAKE_SOURCE_DIR}/tests/gui/php_apps.sh
              $<TARGET_FILE_DIR:lumetta-serve> ${CMAKE_SOURCE_DIR} ${app})
    set_tests_properties(php_app_${app} PROPERTIES
      LABELS "shell_serve" SKIP_RETURN_CODE 77 TIMEOUT 120)
  endforeach()
endif()
