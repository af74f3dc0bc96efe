# Aids around the PIN fields: offscreen, on an X server where Caps Lock can be
# read, and under Wayland (weston's headless back end, where installed; not in
# sanitizer builds: Qt's Wayland client leaks at exit from an unloaded module).
zrui_add_test(NAME TestPinFieldAids SOURCES ${CMAKE_SOURCE_DIR}/tests/gui/TestPinFieldAids.cpp
  LIBS zrui_ui zrui_testsupport)
set(_aids_env LANG=C.UTF-8 LC_ALL=C.UTF-8 ${ZRUI_SANITIZER_ENV})
find_package(X11)
if(X11_FOUND AND X11_Xkb_FOUND)
  target_compile_definitions(TestPinFieldAids PRIVATE ZRUI_HAVE_XKB)
  target_link_libraries(TestPinFieldAids PRIVATE X11::X11)
  add_test(NAME TestPinFieldAids_xcb
    COMMAND xvfb-run -a $<TARGET_FILE:TestPinFieldAids> testCapsLockHint testShowToggle)
  set_tests_properties(TestPinFieldAids_xcb PROPERTIES TIMEOUT 120
    ENVIRONMENT "${_aids_env};QT_QPA_PLATFORM=xcb")
endif()
find_program(ZRUI_WESTON weston)
if(ZRUI_WESTON AND NOT ZRUI_SANITIZED)
  add_test(NAME TestPinFieldAids_wayland COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/with-weston.sh
    $<TARGET_FILE:TestPinFieldAids> testTabOrderAndKeyboardTyping testShowToggle testActivationRequestedOnce)
  set_tests_properties(TestPinFieldAids_wayland PROPERTIES TIMEOUT 120 ENVIRONMENT "${_aids_env}")
endif()
