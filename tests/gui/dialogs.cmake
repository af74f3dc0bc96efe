# Message, container list and waiting dialogs: real widgets, offscreen,
# reporting to the scripted status handler.

# A window icon of our own at the path the dialogs load (":/images/logo.ico"),
# so the icon checks do not depend on the shipped resource file. XPM is text
# and read by content whatever the file's suffix.
set(_dlg_res ${CMAKE_CURRENT_BINARY_DIR}/dialogs-resources)
file(WRITE ${_dlg_res}/images/logo.ico
"/* XPM */
static const char *logo[] = {
\"4 4 2 1\",
\"r c #FF0000\",
\"b c #0000FF\",
\"rrbb\",
\"rrbb\",
\"bbrr\",
\"bbrr\"};
")
file(WRITE ${_dlg_res}/dialogs-test.qrc
"<RCC><qresource prefix=\"/\"><file>images/logo.ico</file></qresource></RCC>
")
qt5_add_resources(_dlg_test_rcc ${_dlg_res}/dialogs-test.qrc)
# Objects, not a static archive: the resource registers itself from a static
# initialiser that a linker would drop from an archive.
add_library(zrui_dialogs_testres OBJECT ${_dlg_test_rcc})
target_link_libraries(zrui_dialogs_testres PRIVATE Qt5::Core)

zrui_add_test(NAME TestMessageDialog
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestMessageDialog.cpp $<TARGET_OBJECTS:zrui_dialogs_testres>
  LIBS zrui_ui zrui_testsupport)
zrui_add_test(NAME TestCertListDialog
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestCertListDialog.cpp $<TARGET_OBJECTS:zrui_dialogs_testres>
  LIBS zrui_ui zrui_testsupport)
zrui_add_test(NAME TestWaitingDialog
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestWaitingDialog.cpp $<TARGET_OBJECTS:zrui_dialogs_testres>
  LIBS zrui_ui zrui_testsupport)

# Escape, Return, accelerators, focus ring and Tab order of every dialog.
zrui_add_test(NAME TestDialogKeys
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestDialogKeys.cpp $<TARGET_OBJECTS:zrui_dialogs_testres>
  LIBS zrui_ui zrui_testsupport)
