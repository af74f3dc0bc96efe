# PIN dialog: real widgets reporting to the scripted status handler, offscreen.
zrui_add_test(NAME TestPINDialog
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestPINDialog.cpp
  LIBS zrui_ui zrui_testsupport)

# Middle-click paste needs a platform with a selection clipboard: the same
# binary runs again on an X server for the cases that depend on it.
find_program(ZRUI_XVFB_RUN xvfb-run)
if(ZRUI_XVFB_RUN)
  add_test(NAME TestPINDialog_xcb
    COMMAND ${ZRUI_XVFB_RUN} -a $<TARGET_FILE:TestPINDialog>
            testMiddleClickPasteIgnored testClipboardShortcutsSwallowed testDropIgnored)
  set(_xcb_env LANG=C.UTF-8 LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb
      ZRUI_TEST_OUTPUT=${CMAKE_BINARY_DIR}/test-output ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPINDialog_xcb PROPERTIES TIMEOUT 120 ENVIRONMENT "${_xcb_env}")
endif()

# Strength rules of the PIN dialog, table by table.
zrui_add_test(NAME TestIsValidPIN
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/../unit/TestIsValidPIN.cpp
  LIBS zrui_ui zrui_testsupport)

# Contrast and tone of the comment line on a light and a dark palette.
zrui_add_test(NAME TestPinComments
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestPinComments.cpp
  LIBS zrui_ui zrui_testsupport)

# Roles, names, password fields and announced errors as assistive tools see them.
zrui_add_test(NAME TestDialogAccessibility
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestDialogAccessibility.cpp
  LIBS zrui_ui zrui_testsupport)
