# The request service over real sockets: the real coordinator in-process (socket
# service in its thread, real dialogs offscreen), raw clients, QTest as the user.
# Needs the signed resource file and the stand-in token stack.
zrui_add_test(NAME TestService SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestService.cpp
  LIBS zrui_ui zrui_client zrui_testsupport TIMEOUT 300)
add_dependencies(TestService zrui_resources zrui_tokensim)
