# Tests of the stand-in token stack, the signing tool, the artwork and the
# signed resource files. Paths are taken from this fragment's own directory.
get_filename_component(_zrsim_top ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)

zrui_add_test(NAME TestTokenSimExports
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/TestTokenSimExports.cpp
  LIBS Qt5::Core ${CMAKE_DL_LIBS}
  ENV "ZRUI_TOKENSIM_VARIANT_DIR=${CMAKE_BINARY_DIR}/tokenlib-variants/no-last-alg")

zrui_add_test(NAME TestTokenSimDevice
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/TestTokenSimDevice.cpp
  LIBS Qt5::Core ${CMAKE_DL_LIBS})

zrui_add_test(NAME TestSignatureRoundTrip
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/TestSignatureRoundTrip.cpp
  LIBS Qt5::Core OpenSSL::Crypto ${CMAKE_DL_LIBS}
  ENV "ZRUI_SIGN_TOOL=$<TARGET_FILE:zrui-sign>")

zrui_add_test(NAME TestGifEncoder
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/TestGifEncoder.cpp
  LIBS zrui_gifencoder Qt5::Gui)

zrui_add_test(NAME TestResourceFiles
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/TestResourceFiles.cpp
  LIBS Qt5::Gui
  ENV "ZRUI_RESOURCES_SOURCE_DIR=${_zrsim_top}/resources"
      "ZRUI_LUPDATE=$<TARGET_FILE:Qt5::lupdate>")

foreach(_t TestTokenSimExports TestTokenSimDevice TestSignatureRoundTrip TestResourceFiles)
  target_include_directories(${_t} PRIVATE ${_zrsim_top})
  # Building a test builds what it looks at.
  add_dependencies(${_t} zrui_tokensim)
endforeach()
add_dependencies(TestSignatureRoundTrip zrui-sign)
add_dependencies(TestResourceFiles zrui_resources)
