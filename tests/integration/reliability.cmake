# The real executable under Xvfb against stalled, vanishing and foreign
# clients (the other user's cases need root and skip otherwise).
zrui_add_test(NAME TestReliability
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestReliability.cpp
          ${CMAKE_SOURCE_DIR}/tests/e2e/XDoTool.h ${CMAKE_SOURCE_DIR}/tests/e2e/XDoTool.cpp
  LIBS zrui_testsupport zrui_client Qt5::Core
  LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24"
  ENV "ZRUI_CLI=$<TARGET_FILE:zrui-cli>"
  TIMEOUT 180)
target_include_directories(TestReliability PRIVATE ${CMAKE_SOURCE_DIR}/tests/e2e)
add_dependencies(TestReliability zrui-cli ZRUIServer zrui_tokensim zrui_resources zrui_test_resources)
