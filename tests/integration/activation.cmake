# Socket activation of the real executable through systemd-socket-activate.
zrui_add_test(NAME TestSocketActivation
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestSocketActivation.cpp
  LIBS zrui_testsupport zrui_client LOCKS uilog TIMEOUT 120)
add_dependencies(TestSocketActivation ZRUIServer zrui_tokensim zrui_resources zrui_test_resources)
