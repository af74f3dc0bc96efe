# Start-up and environment: INI reader, signature check, loaders, locale and
# file lookup, log sink, UI coordinator.
zrui_add_test(NAME TestIniReader SOURCES TestIniReader.cpp LIBS zrui_app)

zrui_add_test(NAME TestFileIntegrity SOURCES TestFileIntegrity.cpp LIBS zrui_app)
add_dependencies(TestFileIntegrity zrui_tokensim zrui_resources)

zrui_add_test(NAME TestTokenLibLoaders SOURCES TestTokenLibLoaders.cpp LIBS zrui_app)
add_dependencies(TestTokenLibLoaders zrui_tokensim)

zrui_add_test(NAME TestStartupEnv SOURCES TestStartupEnv.cpp LIBS zrui_app)
add_dependencies(TestStartupEnv zrui_resources)

zrui_add_test(NAME TestLogSink SOURCES TestLogSink.cpp LIBS zrui_app zrui_testsupport LOCKS uilog)

# Constructs the real coordinator (libraries, signed resources, socket
# service, dialogs) inside the test process.
zrui_add_test(NAME TestUIService SOURCES TestUIService.cpp LIBS zrui_ui zrui_testsupport
              TIMEOUT 180)
add_dependencies(TestUIService zrui_tokensim zrui_resources)
if(TARGET zrui_test_resources)
  add_dependencies(TestUIService zrui_test_resources)
endif()
