# Stalled, vanishing and foreign clients, a taken socket name (startup.cmake).
zrui_server_process_test(TestReliability testConnectionDeadlines testTakenName)
