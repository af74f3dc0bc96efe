# `format` rewrites, `format-check` fails on any difference (used by CI).
find_program(CLANG_FORMAT_EXE NAMES clang-format clang-format-14)
if(CLANG_FORMAT_EXE)
  file(GLOB_RECURSE ZRUI_FORMAT_SOURCES CONFIGURE_DEPENDS
    ${CMAKE_SOURCE_DIR}/app/*.cpp ${CMAKE_SOURCE_DIR}/app/*.h
    ${CMAKE_SOURCE_DIR}/service/*.cpp ${CMAKE_SOURCE_DIR}/service/*.h
    ${CMAKE_SOURCE_DIR}/ui/*.cpp ${CMAKE_SOURCE_DIR}/ui/*.h
    ${CMAKE_SOURCE_DIR}/keyboard/*.cpp ${CMAKE_SOURCE_DIR}/keyboard/*.h
    ${CMAKE_SOURCE_DIR}/tokensim/*.cpp ${CMAKE_SOURCE_DIR}/tokensim/*.h
    ${CMAKE_SOURCE_DIR}/client/*.cpp ${CMAKE_SOURCE_DIR}/client/*.h
    ${CMAKE_SOURCE_DIR}/tools/*.cpp ${CMAKE_SOURCE_DIR}/tools/*.h
    ${CMAKE_SOURCE_DIR}/bench/*.cpp
    ${CMAKE_SOURCE_DIR}/tests/*.cpp ${CMAKE_SOURCE_DIR}/tests/*.h)
  add_custom_target(format
    COMMAND ${CLANG_FORMAT_EXE} -i --style=file ${ZRUI_FORMAT_SOURCES}
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    COMMENT "clang-format over the sources")
  add_custom_target(format-check
    COMMAND ${CLANG_FORMAT_EXE} --dry-run --Werror --style=file ${ZRUI_FORMAT_SOURCES}
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    COMMENT "clang-format check")
endif()
