# The hint in a PIN dialog shown again after an accepted retry.
zrui_add_test(NAME TestRetryHint SOURCES TestRetryHint.cpp LIBS zrui_ui zrui_testsupport)
add_dependencies(TestRetryHint zrui_tokensim zrui_resources)
