# zrui-cli against the real server (startup.cmake).
zrui_server_process_test(TestCli testCli)
