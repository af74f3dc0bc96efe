# The client library: layouts and parsing, framing against a scripted server.
zrui_add_test(NAME TestClient SOURCES TestClient.cpp LIBS zrui_client Qt5::Core Threads::Threads)
