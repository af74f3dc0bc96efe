# On-screen keyboards: real mouse events on the key labels, offscreen.
zrui_add_test(NAME TestSoftKeyboards
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSoftKeyboards.cpp
  LIBS zrui_keyboard)
# The keyboards from the physical keyboard and through accessibility, offscreen.
zrui_add_test(NAME TestKeyboardAccess
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestKeyboardAccess.cpp
  LIBS zrui_keyboard)
