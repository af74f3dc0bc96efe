# Real windows: the real executable in a real X server (xvfb-run, no window
# manager), driven by the client library and by xdotool as the person.
zrui_add_test(NAME TestEndToEnd
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestEndToEnd.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp
  LIBS zrui_testsupport zrui_client Qt5::Core
  LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24"
  TIMEOUT 240
  LOCKS uilog
  LABELS e2e)
add_dependencies(TestEndToEnd ZRUIServer zrui_resources zrui_tokensim)

# Screenshots of each demo step in a real X server: `cmake --build build --target demo-screenshots`
# writes them into <build>/demo-screenshots/.
add_executable(zrui-demo-screenshots EXCLUDE_FROM_ALL
  ${CMAKE_CURRENT_SOURCE_DIR}/DemoScreenshots.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp)
target_link_libraries(zrui-demo-screenshots PRIVATE zrui_testsupport zrui_client Qt5::Gui zrui_common)
add_custom_target(demo-screenshots
  COMMAND ${CMAKE_COMMAND} -E env
          ZRUI_BIN_DIR=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
          ZRUI_TOKENSIM_DIR=${ZRUI_TOKENSIM_DIR}/
          --unset=QT_QPA_PLATFORM
          xvfb-run -a -s "-screen 0 1280x1024x24"
          $<TARGET_FILE:zrui-demo-screenshots> ${CMAKE_BINARY_DIR}/demo-screenshots
  DEPENDS zrui-demo-screenshots ZRUIServer zrui_resources zrui_tokensim
  COMMENT "Screenshots of the demo steps under Xvfb"
  VERBATIM USES_TERMINAL)
