# zrui-cli and the client library against the real server.
zrui_add_test(NAME TestCli SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestCli.cpp
  LIBS zrui_testsupport zrui_client ENV "ZRUI_CLI=$<TARGET_FILE:zrui-cli>" LOCKS uilog TIMEOUT 180)
add_dependencies(TestCli zrui-cli ZRUIServer zrui_resources zrui_tokensim)
