# Real widgets, offscreen, reporting to the scripted status handler.
zrui_add_test(NAME TestPINDialog SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestPINDialog.cpp
  LIBS zrui_ui zrui_testsupport)
zrui_add_test(NAME TestSoftKeyboards SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSoftKeyboards.cpp
  LIBS zrui_keyboard)
# The window icon the dialogs load (":/images/logo.ico"), our own 4 x 4 XPM (read by content),
# linked as objects: an archive would drop the resource's static initialiser.
set(_res ${CMAKE_CURRENT_BINARY_DIR}/dialogs-resources)
file(WRITE ${_res}/images/logo.ico "/* XPM */\nstatic const char *logo[] = {\"4 4 2 1\", \"r c #FF0000\", \"b c #0000FF\", \"rrbb\", \"rrbb\", \"bbrr\", \"bbrr\"};\n")
file(WRITE ${_res}/test.qrc "<RCC><qresource prefix=\"/\"><file>images/logo.ico</file></qresource></RCC>\n")
qt5_add_resources(_rcc ${_res}/test.qrc)
add_library(zrui_dialogs_testres OBJECT ${_rcc})
target_link_libraries(zrui_dialogs_testres PRIVATE Qt5::Core)
zrui_add_test(NAME TestDialogs LIBS zrui_ui zrui_testsupport
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestDialogs.cpp $<TARGET_OBJECTS:zrui_dialogs_testres>)
# The strength rules, table by table.
zrui_add_test(NAME TestIsValidPIN SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/../unit/TestIsValidPIN.cpp
  LIBS zrui_ui zrui_testsupport)

# Middle-click paste needs a selection clipboard: the PIN guards run again on an X server.
find_program(ZRUI_XVFB_RUN xvfb-run)
if(ZRUI_XVFB_RUN)
  add_test(NAME TestPINDialog_xcb
    COMMAND ${ZRUI_XVFB_RUN} -a $<TARGET_FILE:TestPINDialog> testPasteGuards)
  set(_xcb_env LANG=C.UTF-8 LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPINDialog_xcb PROPERTIES TIMEOUT 120 ENVIRONMENT "${_xcb_env}")
endif()
