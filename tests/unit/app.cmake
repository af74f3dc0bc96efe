# Start-up pieces in the test process: token library loaders, the signed-file chain and the
# translation choice; the log sink; the UI coordinator; and the artwork's GIF writer.
zrui_add_test(NAME TestIntegrity SOURCES TestIntegrity.cpp LIBS zrui_app)
add_dependencies(TestIntegrity zrui_tokensim zrui_resources)

zrui_add_test(NAME TestLogSink SOURCES TestLogSink.cpp LIBS zrui_app zrui_testsupport LOCKS uilog)

zrui_add_test(NAME TestUIService SOURCES TestUIService.cpp LIBS zrui_ui zrui_testsupport
              TIMEOUT 180)
add_dependencies(TestUIService zrui_tokensim zrui_resources zrui_test_resources)

zrui_add_test(NAME TestGifEncoder SOURCES TestGifEncoder.cpp LIBS zrui_gifencoder Qt5::Gui)
