# The shipped executables as built: PIE, full RELRO, stack protector and
# (outside sanitizer builds) _FORTIFY_SOURCE, read from their ELF headers.
find_program(ZRUI_READELF NAMES readelf REQUIRED)
set(_fortify ON)
if(ZRUI_SANITIZED)
  set(_fortify OFF)
endif()
zrui_add_test(NAME TestBinaryHardening
  COMMAND ${CMAKE_COMMAND} -DREADELF=${ZRUI_READELF} -DFORTIFY=${_fortify}
          "-DBINARIES=$<TARGET_FILE:ZRUIServer>$<SEMICOLON>$<TARGET_FILE:zrui-cli>"
          -P ${CMAKE_SOURCE_DIR}/cmake/ZruiCheckHardening.cmake
  TIMEOUT 60)
