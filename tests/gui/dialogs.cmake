# Real widgets, offscreen, reporting to the scripted status handler.
foreach(_t TestPINDialog TestDialogs)
  zrui_add_test(NAME ${_t} SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/${_t}.cpp LIBS zrui_ui zrui_testsupport)
endforeach()
# On an X server: middle-click paste needs a selection clipboard, the Caps Lock hint a keyboard
# state to read.
find_package(X11)
if(X11_FOUND AND X11_Xkb_FOUND)
  target_compile_definitions(TestPINDialog PRIVATE ZRUI_HAVE_XKB)
  target_link_libraries(TestPINDialog PRIVATE X11::X11)
  add_test(NAME TestPINDialog_xcb COMMAND xvfb-run -a $<TARGET_FILE:TestPINDialog> testFieldAids)
  set(_xcb_env LANG=C.UTF-8 LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPINDialog_xcb PROPERTIES TIMEOUT 120 ENVIRONMENT "${_xcb_env}")
endif()
