# Translations in a real X server: the real executable started under each
# locale shows its PIN dialog with the translated title, and the dialogs'
# texts fit and have glyphs in every language, at scale 1.0 and 1.5 (the
# program's scale is the logical DPI / 96, set here through the X server's
# -dpi).

# Screenshots of every dialog in the three languages at both scales:
# `cmake --build build --target locale-screenshots` writes them into
# <build>/locale-screenshots/scale<s>/<language>/.
add_executable(zrui-locale-screenshots EXCLUDE_FROM_ALL
  ${CMAKE_CURRENT_SOURCE_DIR}/LocaleScreenshots.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/WindowTitles.h ${CMAKE_CURRENT_SOURCE_DIR}/WindowTitles.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp)
target_link_libraries(zrui-locale-screenshots PRIVATE zrui_testsupport zrui_client Qt5::Gui
                      zrui_common)
set(_zrui_shot_env
  ZRUI_BIN_DIR=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
  ZRUI_TOKENSIM_DIR=${ZRUI_TOKENSIM_DIR}/
  --unset=QT_QPA_PLATFORM --unset=QT_SCALE_FACTOR --unset=QT_AUTO_SCREEN_SCALE_FACTOR)
add_custom_target(locale-screenshots
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${CMAKE_BINARY_DIR}/locale-screenshots
  COMMAND ${CMAKE_COMMAND} -E env ${_zrui_shot_env}
          xvfb-run -a -s "-screen 0 1600x1200x24 -dpi 96"
          $<TARGET_FILE:zrui-locale-screenshots> ${CMAKE_BINARY_DIR}/locale-screenshots
  COMMAND ${CMAKE_COMMAND} -E env ${_zrui_shot_env}
          xvfb-run -a -s "-screen 0 1600x1200x24 -dpi 144"
          $<TARGET_FILE:zrui-locale-screenshots> ${CMAKE_BINARY_DIR}/locale-screenshots
  DEPENDS zrui-locale-screenshots ZRUIServer zrui_resources zrui_test_resources zrui_tokensim
  COMMENT "Screenshots of every dialog in three languages at scale 1.0 and 1.5 under Xvfb"
  VERBATIM USES_TERMINAL)

zrui_add_test(NAME TestLocales
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/TestLocales.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/WindowTitles.h ${CMAKE_CURRENT_SOURCE_DIR}/WindowTitles.cpp
          ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.h ${CMAKE_CURRENT_SOURCE_DIR}/XDoTool.cpp
  LIBS zrui_ui zrui_testsupport zrui_client Qt5::Widgets
  LAUNCHER xvfb-run -a -s "-screen 0 1600x1200x24 -dpi 96"
  TIMEOUT 300
  LOCKS uilog
  LABELS e2e
  ENV "ZRUI_TRANSLATIONS_DIR=${CMAKE_SOURCE_DIR}/resources/translations"
      "ZRUI_EXPECT_SCALE=1")
add_dependencies(TestLocales ZRUIServer zrui_resources zrui_tokensim)

# The same executable in an X server of 144 dots per inch: scale 1.5.
get_test_property(TestLocales ENVIRONMENT _zrui_locales_env)
list(TRANSFORM _zrui_locales_env REPLACE "^ZRUI_EXPECT_SCALE=.*" "ZRUI_EXPECT_SCALE=1.5")
add_test(NAME TestLocales_dpi144
  COMMAND xvfb-run -a -s "-screen 0 1600x1200x24 -dpi 144" $<TARGET_FILE:TestLocales>)
set_tests_properties(TestLocales_dpi144 PROPERTIES
  TIMEOUT 300 RESOURCE_LOCK uilog LABELS e2e ENVIRONMENT "${_zrui_locales_env}")

# A 1280 x 1024 screen of 192 dots per inch (scale 2), and Qt's own scaling
# by 2 at 96 dots per inch (scale 1: Qt scales everything itself).
list(TRANSFORM _zrui_locales_env REPLACE "^ZRUI_EXPECT_SCALE=.*" "ZRUI_EXPECT_SCALE=2")
add_test(NAME TestLocales_dpi192
  COMMAND xvfb-run -a -s "-screen 0 1280x1024x24 -dpi 192" $<TARGET_FILE:TestLocales>)
set_tests_properties(TestLocales_dpi192 PROPERTIES
  TIMEOUT 300 RESOURCE_LOCK uilog LABELS e2e ENVIRONMENT "${_zrui_locales_env}")
list(TRANSFORM _zrui_locales_env REPLACE "^ZRUI_EXPECT_SCALE=.*" "ZRUI_EXPECT_SCALE=1")
add_test(NAME TestLocales_qtscale2
  COMMAND xvfb-run -a -s "-screen 0 1280x1024x24 -dpi 96" $<TARGET_FILE:TestLocales>)
set_tests_properties(TestLocales_qtscale2 PROPERTIES
  TIMEOUT 300 RESOURCE_LOCK uilog LABELS e2e
  ENVIRONMENT "${_zrui_locales_env};QT_SCALE_FACTOR=2")
