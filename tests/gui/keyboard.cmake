# On-screen keyboards: real mouse events on the key labels, offscreen.
zrui_add_test(NAME TestSoftKeyboards
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSoftKeyboards.cpp
  LIBS zrui_keyboard)
