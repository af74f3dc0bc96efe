# Dialog round trips: the real coordinator in-process (socket service in its
# thread, real dialogs offscreen), a client through the client library, QTest
# as the user. Needs the signed resource file and the stand-in token stack.
zrui_add_test(NAME TestDialogRoundTrip
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestDialogRoundTrip.cpp
  LIBS zrui_ui zrui_client zrui_testsupport TIMEOUT 300)
add_dependencies(TestDialogRoundTrip zrui_resources zrui_tokensim)
