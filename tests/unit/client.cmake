# The client library: layout and parsing (pure logic), framing against a
# scripted server on a real abstract socket.
zrui_add_test(NAME TestClientCodec
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestClientCodec.cpp
  LIBS zrui_client Qt5::Core)
zrui_add_test(NAME TestClientTransport
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestClientTransport.cpp
  LIBS zrui_client Qt5::Core Threads::Threads)
