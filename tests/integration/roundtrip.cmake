# Dialog round trips: the real coordinator in-process (socket service in its
# thread, real dialogs offscreen), a client through the client library, QTest
# as the user. Needs the signed resource file and the stand-in token stack.
set(_rt_tsan_env)
if(ZRUI_TSAN)
  # Same suppressions as the service tests: only reports raised from inside
  # uninstrumented Qt/GLib are silenced; any other report fails the test.
  set(_rt_tsan_env
      "TSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/service-tsan.supp halt_on_error=0 exitcode=66")
endif()
zrui_add_test(NAME TestDialogRoundTrip
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestDialogRoundTrip.cpp
  LIBS zrui_ui zrui_client zrui_testsupport TIMEOUT 300 ENV ${_rt_tsan_env})
add_dependencies(TestDialogRoundTrip zrui_resources zrui_tokensim)
