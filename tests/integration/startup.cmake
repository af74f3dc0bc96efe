# The real executable as a process, under Xvfb: one test program whose slots
# CTest runs as three tests (start-up, reliability, zrui-cli). The cases of
# another user need root and skip otherwise.
add_executable(TestServerProcess ${CMAKE_CURRENT_SOURCE_DIR}/TestServerProcess.cpp
               ${CMAKE_SOURCE_DIR}/tests/e2e/XDoTool.h ${CMAKE_SOURCE_DIR}/tests/e2e/XDoTool.cpp)
target_include_directories(TestServerProcess PRIVATE ${CMAKE_SOURCE_DIR}/tests/e2e)
target_link_libraries(TestServerProcess PRIVATE zrui_testsupport zrui_client Qt5::Test zrui_common)
add_dependencies(TestServerProcess zrui-cli ZRUIServer zrui_tokensim zrui_resources
                 zrui_test_resources)
function(zrui_server_process_test name)
  zrui_add_test(NAME ${name} COMMAND $<TARGET_FILE:TestServerProcess> ${ARGN}
    LAUNCHER xvfb-run -a -s "-screen 0 1280x1024x24" LOCKS uilog
    ENV "ZRUI_CLI=$<TARGET_FILE:zrui-cli>" TIMEOUT 240)
endfunction()
zrui_server_process_test(TestStartup testStart testSocketActivation testSecretsStayInMemory)
