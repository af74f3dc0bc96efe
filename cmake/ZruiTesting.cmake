# zrui_add_test(NAME <name> SOURCES <files...> LIBS <targets...>
#               [LAUNCHER <command...>] [TIMEOUT <s>] [LOCKS <resources...>]
#               [LABELS <labels...>])
#
# One executable per test class. Every test runs offscreen with a fixed
# UTF-8 locale unless the launcher (xvfb-run for real-window tests) says
# otherwise. Tests that read the fixed log file /tmp/uilog.txt take the
# "uilog" lock so that their lines do not mix.
function(zrui_add_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBS;LAUNCHER;LOCKS;LABELS;ENV" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} Qt5::Test zrui_common)
  add_test(NAME ${T_NAME} COMMAND ${T_LAUNCHER} $<TARGET_FILE:${T_NAME}>)
  set(env "LANG=C.UTF-8" "LC_ALL=C.UTF-8"
          "ZRUI_BIN_DIR=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
          "ZRUI_TOKENSIM_DIR=${ZRUI_TOKENSIM_DIR}/"
          "ZRUI_TEST_DATA=${CMAKE_SOURCE_DIR}/tests/data"
          "ZRUI_TEST_OUTPUT=${CMAKE_BINARY_DIR}/test-output")
  if(NOT T_LAUNCHER)
    list(APPEND env "QT_QPA_PLATFORM=offscreen")
  endif()
  if(ZRUI_ASAN)
    # Qt's offscreen plugin leaks a few bytes at exit; nothing of ours.
    list(APPEND env "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/support/lsan-qt.supp")
  endif()
  list(APPEND env ${T_ENV})
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${env}")
  if(T_LOCKS)
    set_tests_properties(${T_NAME} PROPERTIES RESOURCE_LOCK "${T_LOCKS}")
  endif()
  if(T_LABELS)
    set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()
