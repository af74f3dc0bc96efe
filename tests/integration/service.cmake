# The request service over real sockets: the real FIFO_Service in a thread of
# its own, FakeUiStatus behind it, the stand-in device library bound through
# the real loader, clients through the client library.
add_library(zrui_service_harness STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/ServiceHarness.h ${CMAKE_CURRENT_SOURCE_DIR}/ServiceHarness.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/SignalRecorder.h ${CMAKE_CURRENT_SOURCE_DIR}/SignalRecorder.cpp)
target_include_directories(zrui_service_harness PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(zrui_service_harness PUBLIC zrui_service zrui_testsupport zrui_client
                                                  Qt5::Test zrui_common)
add_dependencies(zrui_service_harness zrui_tokensim)

zrui_add_test(NAME TestServiceProtocol
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestServiceProtocol.cpp
  LIBS zrui_service_harness TIMEOUT 300)
# Reads and clears /tmp/uilog.txt.
zrui_add_test(NAME TestServiceSecurity
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestServiceSecurity.cpp
  LIBS zrui_service_harness LOCKS uilog TIMEOUT 120)

# The service inside the real executable: second instance, keep-alive.
zrui_add_test(NAME TestServiceProcess
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestServiceProcess.cpp
  LIBS zrui_testsupport zrui_client LOCKS uilog TIMEOUT 180)
add_dependencies(TestServiceProcess ZRUIServer zrui_tokensim zrui_resources zrui_test_resources)
# The session table walked over the real socket, row by row.
zrui_add_test(NAME TestSessionTable
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSessionTable.cpp
  LIBS zrui_service_harness TIMEOUT 300 ENV ${_svc_tsan_env})
