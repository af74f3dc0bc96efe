# What a failed start-up says on stderr.
zrui_add_test(NAME TestStartupHints
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestStartupHints.cpp
  LIBS zrui_testsupport LOCKS uilog TIMEOUT 120)
add_dependencies(TestStartupHints ZRUIServer zrui_tokensim zrui_resources)
