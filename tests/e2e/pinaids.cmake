# Aids around the PIN fields (keyboard focus, show toggle, Caps Lock hint,
# activation policy): offscreen, and again on an X server where Caps Lock
# can be read.
zrui_add_test(NAME TestPinFieldAids
  SOURCES ${CMAKE_SOURCE_DIR}/tests/gui/TestPinFieldAids.cpp
  LIBS zrui_ui zrui_testsupport)
find_package(X11)
if(X11_FOUND AND X11_Xkb_FOUND)
  target_compile_definitions(TestPinFieldAids PRIVATE ZRUI_HAVE_XKB)
  target_link_libraries(TestPinFieldAids PRIVATE X11::X11)
  add_test(NAME TestPinFieldAids_xcb
    COMMAND xvfb-run -a $<TARGET_FILE:TestPinFieldAids> testCapsLockHint testShowToggle)
  set(_aids_env LANG=C.UTF-8 LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPinFieldAids_xcb PROPERTIES TIMEOUT 120 ENVIRONMENT "${_aids_env}")
endif()
# Under Wayland (weston's headless back end, where installed): the dialogs
# work and activation is asked for once, never in a loop.
# Not in sanitizer builds: Qt's Wayland client stack leaks at exit from a
# module that is unloaded by then, which no suppression can name.
find_program(ZRUI_WESTON weston)
if(ZRUI_WESTON AND NOT ZRUI_SANITIZED)
  add_test(NAME TestPinFieldAids_wayland
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/with-weston.sh $<TARGET_FILE:TestPinFieldAids>
            testTabOrderAndKeyboardTyping testShowToggle testActivationRequestedOnce)
  set(_aids_env LANG=C.UTF-8 LC_ALL=C.UTF-8 ${ZRUI_SANITIZER_ENV})
  set_tests_properties(TestPinFieldAids_wayland PROPERTIES TIMEOUT 120 ENVIRONMENT "${_aids_env}")
endif()
