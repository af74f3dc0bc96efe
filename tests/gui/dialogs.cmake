# Real widgets, offscreen, reporting to the scripted status handler.
foreach(_t TestPINDialog TestDialogs)
  zrui_add_test(NAME ${_t} SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/${_t}.cpp LIBS zrui_ui zrui_testsupport)
endforeach()
zrui_add_test(NAME TestSoftKeyboards SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSoftKeyboards.cpp
  LIBS zrui_keyboard)
# Middle-click paste needs a selection clipboard: the PIN guards run again on an X server.
find_program(ZRUI_XVFB_RUN xvfb-run)
if(ZRUI_XVFB_RUN)
  add_test(NAME TestPINDialog_xcb
    COMMAND ${ZRUI_XVFB_RUN} -a $<TARGET_FILE:TestPINDialog> testPasteGuards)
  set(_xcb_env LANG=C.UTF-8 LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPINDialog_xcb PROPERTIES TIMEOUT 120 ENVIRONMENT "${_xcb_env}")
endif()
