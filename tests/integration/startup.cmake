# Start-up of the real executable with the stand-in token stack.
zrui_add_test(NAME TestStartup SOURCES TestStartup.cpp LIBS zrui_testsupport LOCKS uilog TIMEOUT 300)
add_dependencies(TestStartup ZRUIServer zrui_tokensim zrui_resources)
