# Benchmarks: built with the tests, run by hand through the "bench" target
# (never by CTest: timings are noisy). Every figure is printed beside a
# reference measured in the same run.
add_executable(zrui_refserver ${CMAKE_CURRENT_SOURCE_DIR}/RefServer.c)
target_include_directories(zrui_refserver PRIVATE ${CMAKE_SOURCE_DIR})
target_compile_options(zrui_refserver PRIVATE -Wall -Wextra)

find_library(ZRUI_XCB_LIBRARY xcb REQUIRED)
add_executable(zrui_bench ${CMAKE_CURRENT_SOURCE_DIR}/Bench.cpp)
target_link_libraries(zrui_bench PRIVATE zrui_testsupport zrui_client Qt5::Widgets
                                         ${ZRUI_XCB_LIBRARY} zrui_common)
add_dependencies(zrui_bench zrui_refserver ZRUIServer zrui_resources zrui_tokensim)

add_custom_target(bench
  COMMAND ${CMAKE_COMMAND} -E env --unset=QT_QPA_PLATFORM
          ZRUI_BIN_DIR=${CMAKE_RUNTIME_OUTPUT_DIRECTORY} ZRUI_TOKENSIM_DIR=${ZRUI_TOKENSIM_DIR}/
          xvfb-run -a -s "-screen 0 1280x1024x24" $<TARGET_FILE:zrui_bench>
  DEPENDS zrui_bench
  USES_TERMINAL
  COMMENT "zrui_bench: ZRUIServer against references measured in the same run")
