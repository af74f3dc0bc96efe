# Real windows: the real executable in a real X server (xvfb-run, no window
# manager), driven by the client library and by xdotool as the person.
zrui_add_test(NAME TestEndToEnd
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestEndToEnd.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp
  LIBS zrui_testsupport zrui_client Qt5::Core
  LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24"
  TIMEOUT 240
  LABELS e2e)
add_dependencies(TestEndToEnd ZRUIServer zrui_resources zrui_tokensim)
