# The client library against a scripted server: request bytes, framing and every error path.
zrui_add_test(NAME TestClient SOURCES TestClient.cpp LIBS zrui_client Qt5::Core Threads::Threads)
