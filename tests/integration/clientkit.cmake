# The installed client kit, built against from a DESTDIR staging directory
# (the slots are in the program startup.cmake builds).
target_compile_definitions(TestServerProcess PRIVATE
  ZRUI_KIT_BUILD_DIR="${CMAKE_BINARY_DIR}" ZRUI_KIT_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
  ZRUI_KIT_PREFIX="${CMAKE_INSTALL_PREFIX}" ZRUI_KIT_LIBDIR="${CMAKE_INSTALL_LIBDIR}")
add_dependencies(TestServerProcess zrui_client_shared)
zrui_server_process_test(TestClientKit testClientKit)
