# Installation and a Debian package (cpack -G DEB). The server expects its
# resource file, signature and configuration beside the executable, so they
# all go into one private directory; zrui-cli goes on the PATH.
include(GNUInstallDirs)
set(ZRUI_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/zruiserver)

install(TARGETS ZRUIServer RUNTIME DESTINATION ${ZRUI_INSTALL_DIR})
install(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/resources.rcc
              ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/integrityprotect.ini
        DESTINATION ${ZRUI_INSTALL_DIR})
# The installed configuration names the token stack's own directory; the
# development one in the build tree points at the stand-in libraries.
install(FILES ${CMAKE_SOURCE_DIR}/resources/ZRUIConf.ini.installed
        DESTINATION ${ZRUI_INSTALL_DIR} RENAME ZRUIConf.ini)
install(TARGETS zrui-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zruiserver)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ZRUIServer developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Dialogs of a USB security-token middleware (PIN entry, confirmations)")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Chinese texts must never render as boxes.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fonts-noto-cjk")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
include(CPack)
