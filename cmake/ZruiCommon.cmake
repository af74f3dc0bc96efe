# One INTERFACE target carries the language level, warnings and defines of
# every target of the project. Nothing here depends on CMAKE_BUILD_TYPE:
# Debian builds with CMAKE_BUILD_TYPE=None and must get the same program.
add_library(zrui_common INTERFACE)
target_compile_features(zrui_common INTERFACE cxx_std_17)
target_compile_options(zrui_common INTERFACE
  -Wall -Wextra -Wnon-virtual-dtor -Woverloaded-virtual)
target_compile_definitions(zrui_common INTERFACE
  QT_DEPRECATED_WARNINGS
  QT_DISABLE_DEPRECATED_BEFORE=0x050000)

if(ZRUI_TSAN AND ZRUI_ASAN)
  message(FATAL_ERROR "ZRUI_TSAN and ZRUI_ASAN exclude each other: use two build directories")
endif()
if(ZRUI_FUZZ AND ZRUI_TSAN)
  message(FATAL_ERROR "ZRUI_FUZZ builds with AddressSanitizer; ZRUI_TSAN does not combine with it")
endif()

# Hardening for every target, executables and libraries alike, whatever the
# build type: the flags of the build type come first on the command line, so
# the -O level here wins over -O0 or -O3. Sanitizer builds keep -O1 (better
# reports) and go without _FORTIFY_SOURCE, whose checked string functions
# would hide accesses from the sanitizers' own interceptors.
include(CheckPIESupported)
check_pie_supported(OUTPUT_VARIABLE _zrui_pie_output LANGUAGES C CXX)
if(NOT CMAKE_CXX_LINK_PIE_SUPPORTED)
  message(WARNING "the linker cannot make position-independent executables: ${_zrui_pie_output}")
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(ZRUI_SANITIZED OFF)
if(ZRUI_TSAN OR ZRUI_ASAN OR ZRUI_FUZZ)
  set(ZRUI_SANITIZED ON)
endif()
if(ZRUI_SANITIZED)
  # Code that behaves differently under a sanitizer asks for this.
  target_compile_definitions(zrui_common INTERFACE ZRUI_SANITIZED)
  add_compile_options(-O1 -g -fno-omit-frame-pointer)
else()
  add_compile_options(-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
add_compile_options(-fstack-protector-strong -fstack-clash-protection)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

if(ZRUI_TSAN)
  target_compile_options(zrui_common INTERFACE -fsanitize=thread)
  target_link_options(zrui_common INTERFACE -fsanitize=thread)
endif()
if(ZRUI_ASAN OR ZRUI_FUZZ)
  # Any finding stops the process: a test cannot pass over an error report.
  target_compile_options(zrui_common INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_link_options(zrui_common INTERFACE -fsanitize=address,undefined)
endif()
if(ZRUI_FUZZ)
  # Coverage feedback for every library the fuzz targets link.
  target_compile_options(zrui_common INTERFACE -fsanitize=fuzzer-no-link)
endif()
