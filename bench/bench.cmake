# Benchmarks: built with the tests, run by hand (not CTest tests).
add_executable(zrui_bench_pinpoll ${CMAKE_CURRENT_SOURCE_DIR}/BenchPinPoll.cpp)
target_link_libraries(zrui_bench_pinpoll PRIVATE zrui_service zrui_testsupport zrui_client
                                                 zrui_common)
target_compile_definitions(zrui_bench_pinpoll PRIVATE
  ZRUI_BENCH_TOKENSIM_DIR="${ZRUI_TOKENSIM_DIR}")
add_dependencies(zrui_bench_pinpoll zrui_tokensim)
