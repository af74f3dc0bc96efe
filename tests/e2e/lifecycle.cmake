# Window life cycle under a real window manager: openbox inside xvfb-run,
# started by the test itself; WM_DELETE_WINDOW goes out through xcb.
find_package(X11 REQUIRED)
zrui_add_test(NAME TestWindowLifecycle
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestWindowLifecycle.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp
  LIBS zrui_testsupport zrui_client Qt5::Core X11::xcb
  LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24"
  TIMEOUT 300
  LABELS e2e)
add_dependencies(TestWindowLifecycle ZRUIServer zrui_resources zrui_tokensim)
