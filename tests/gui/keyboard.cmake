# On-screen keyboards: real mouse events on the key labels, offscreen.
zrui_add_test(NAME TestSoftKeyboard
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSoftKeyboard.cpp
  LIBS zrui_keyboard)
zrui_add_test(NAME TestSimpleSoftKeyboard
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSimpleSoftKeyboard.cpp
  LIBS zrui_keyboard)
