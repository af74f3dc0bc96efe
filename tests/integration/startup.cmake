# The real executable as a process: start-up with the stand-in token stack,
# socket activation (systemd-socket-activate), idle exit, secrets in memory.
zrui_add_test(NAME TestStartup SOURCES TestStartup.cpp LIBS zrui_testsupport zrui_client TIMEOUT 300)
add_dependencies(TestStartup ZRUIServer zrui_tokensim zrui_resources zrui_test_resources)
