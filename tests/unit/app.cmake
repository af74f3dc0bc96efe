# Start-up pieces in the test process: token library loaders, the signed-file chain, the log
# sink and the artwork's GIF writer; and the UI coordinator.
zrui_add_test(NAME TestStartupPieces SOURCES TestStartupPieces.cpp
              LIBS zrui_app zrui_gifencoder zrui_testsupport Qt5::Gui LOCKS uilog)
add_dependencies(TestStartupPieces zrui_tokensim zrui_resources)
# The log sink again as the server runs it as root: without CAP_FOWNER, where open(2) and the
# write themselves refuse other users' files.
zrui_add_test(NAME TestLogSinkKernelGuards
              COMMAND $<TARGET_FILE:TestStartupPieces> testLogLines testLogRefusedFileFallsBack
                      testLogRotation
              ENV ZRUI_TEST_LOG_GUARD=kernel LOCKS uilog)

zrui_add_test(NAME TestUIService SOURCES TestUIService.cpp LIBS zrui_ui zrui_testsupport
              TIMEOUT 180)
add_dependencies(TestUIService zrui_tokensim zrui_resources zrui_test_resources)
