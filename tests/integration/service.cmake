# The request service over real sockets: the real FIFO_Service in a thread of
# its own, FakeUiStatus behind it, the stand-in device library bound through
# the real loader, clients through the client library.
add_library(zrui_service_harness STATIC ${CMAKE_CURRENT_SOURCE_DIR}/ServiceHarness.h
                                        ${CMAKE_CURRENT_SOURCE_DIR}/ServiceHarness.cpp)
target_include_directories(zrui_service_harness PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(zrui_service_harness PUBLIC zrui_service zrui_testsupport zrui_client
                                                  Qt5::Test zrui_common)
add_dependencies(zrui_service_harness zrui_tokensim)

# Also writes /tmp/uilog.txt.
zrui_add_test(NAME TestService SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestService.cpp
  LIBS zrui_service_harness LOCKS uilog TIMEOUT 300)
# The session table walked over the real socket, row by row.
zrui_add_test(NAME TestSessionTable SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSessionTable.cpp
  LIBS zrui_service_harness TIMEOUT 300)

