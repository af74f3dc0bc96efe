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

if(ZRUI_TSAN)
  target_compile_options(zrui_common INTERFACE -fsanitize=thread -g -O1)
  target_link_options(zrui_common INTERFACE -fsanitize=thread)
endif()
if(ZRUI_ASAN)
  target_compile_options(zrui_common INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer -g)
  target_link_options(zrui_common INTERFACE -fsanitize=address,undefined)
endif()
