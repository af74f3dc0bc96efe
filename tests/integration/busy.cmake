# A second program while the server is taken; zrui-cli's global options.
zrui_add_test(NAME TestBusyServer
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestBusyServer.cpp
  LIBS zrui_testsupport zrui_client
  ENV "ZRUI_CLI=$<TARGET_FILE:zrui-cli>"
  TIMEOUT 120)
add_dependencies(TestBusyServer zrui-cli ZRUIServer zrui_resources zrui_tokensim)
