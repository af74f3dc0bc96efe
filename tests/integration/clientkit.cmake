# The installed client kit, built against from a DESTDIR staging directory.
zrui_add_test(NAME TestClientKit
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestClientKit.cpp
  LIBS Qt5::Core TIMEOUT 300)
target_compile_definitions(TestClientKit PRIVATE
  ZRUI_KIT_BUILD_DIR="${CMAKE_BINARY_DIR}" ZRUI_KIT_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
  ZRUI_KIT_PREFIX="${CMAKE_INSTALL_PREFIX}" ZRUI_KIT_LIBDIR="${CMAKE_INSTALL_LIBDIR}")
add_dependencies(TestClientKit zrui_client_shared)
