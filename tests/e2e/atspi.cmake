# What a screen reader gets over the real AT-SPI bus: a private session bus
# (dbus-run-session) on which D-Bus activation starts the accessibility bus,
# in Xvfb.
zrui_add_test(NAME TestAtSpi
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestAtSpi.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp
  LIBS zrui_testsupport zrui_client Qt5::Core
  LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24"
           dbus-run-session --
  TIMEOUT 120
  LABELS e2e)
add_dependencies(TestAtSpi ZRUIServer zrui_resources zrui_tokensim)
# A skip (no usable accessibility bus) shows as skipped, not as passed.
set_tests_properties(TestAtSpi PROPERTIES SKIP_REGULAR_EXPRESSION "SKIP   : ")
