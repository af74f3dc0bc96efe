# zrui_add_test(NAME <name> SOURCES <files...> LIBS <targets...>
#               [LAUNCHER <command...>] [TIMEOUT <s>] [LOCKS <resources...>]
#               [LABELS <labels...>] [ENV <VAR=value...>])
# zrui_add_test(NAME <name> COMMAND <command...> [TIMEOUT ...] ...)
#
# One executable per test class; a test given as a COMMAND (a script) runs
# that instead, with the same environment. Every test runs offscreen with a
# fixed UTF-8 locale unless the launcher (xvfb-run for real-window tests) says
# otherwise. Tests that read the fixed log file /tmp/uilog.txt take the
# "uilog" lock so that their lines do not mix.
#
# Sanitizer builds: ZRUI_SANITIZER_ENV holds the runtime options of the
# sanitizer in use, with its one suppression file from tests/support/. Every
# test gets it (tests added with a plain add_test must append it themselves),
# and so do the servers the tests start, which inherit the environment. Any
# report that the suppressions do not cover ends the process with an error.
set(ZRUI_SANITIZER_ENV)
if(ZRUI_ASAN OR ZRUI_FUZZ OR ZRUI_TSAN)
  # On X, no GL integration: the Mesa driver Qt would load for it leaks at
  # exit from a library that is unloaded by then, which no suppression can
  # name; the widgets do not use GL.
  list(APPEND ZRUI_SANITIZER_ENV "QT_XCB_GL_INTEGRATION=none")
endif()
set(_zrui_supp ${CMAKE_SOURCE_DIR}/tests/support)
if(ZRUI_ASAN OR ZRUI_FUZZ)
  list(APPEND ZRUI_SANITIZER_ENV
    "ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1"
    "LSAN_OPTIONS=suppressions=${_zrui_supp}/lsan.supp:print_suppressions=0"
    "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1")
endif()
if(ZRUI_TSAN)
  list(APPEND ZRUI_SANITIZER_ENV
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=${_zrui_supp}/tsan.supp")
endif()

function(zrui_add_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBS;LAUNCHER;LOCKS;LABELS;ENV;COMMAND" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  if(T_COMMAND)
    add_test(NAME ${T_NAME} COMMAND ${T_LAUNCHER} ${T_COMMAND})
  else()
    add_executable(${T_NAME} ${T_SOURCES})
    target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} Qt5::Test zrui_common)
    add_test(NAME ${T_NAME} COMMAND ${T_LAUNCHER} $<TARGET_FILE:${T_NAME}>)
  endif()
  set(env "LANG=C.UTF-8" "LC_ALL=C.UTF-8"
          "ZRUI_BIN_DIR=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
          "ZRUI_TOKENSIM_DIR=${ZRUI_TOKENSIM_DIR}/"
          "ZRUI_TEST_DATA=${CMAKE_SOURCE_DIR}/tests/data"
          "ZRUI_TEST_OUTPUT=${CMAKE_BINARY_DIR}/test-output")
  if(NOT T_LAUNCHER)
    list(APPEND env "QT_QPA_PLATFORM=offscreen")
  endif()
  list(APPEND env ${ZRUI_SANITIZER_ENV})
  list(APPEND env ${T_ENV})
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${env}")
  if(T_LOCKS)
    set_tests_properties(${T_NAME} PROPERTIES RESOURCE_LOCK "${T_LOCKS}")
  endif()
  if(T_LABELS)
    set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()
