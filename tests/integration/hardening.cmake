zrui_add_test(NAME TestProcessHardening
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestProcessHardening.cpp
  LIBS zrui_testsupport Qt5::Core
  LOCKS uilog)
add_dependencies(TestProcessHardening ZRUIServer zrui_resources zrui_tokensim)
