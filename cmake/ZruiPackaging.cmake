# Installation. The server expects its resource file, signature and
# configuration beside the executable, so they all go into one private
# directory; zrui-cli goes on the PATH; the client library is installed with
# its public headers, pkg-config file and CMake package; the stand-in token
# stack gets a directory of its own. debian/ splits the result into packages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Fixed rather than multiarch: the user units and the autostart entry name it.
set(ZRUI_INSTALL_DIR lib/zruiserver)
set(ZRUI_TOKENSIM_INSTALL_DIR lib/zruiserver-tokensim)
set(ZRUI_SERVER_PATH ${CMAKE_INSTALL_PREFIX}/${ZRUI_INSTALL_DIR}/ZRUIServer)
set(ZRUI_AUTOSTART_PATH ${CMAKE_INSTALL_PREFIX}/${ZRUI_INSTALL_DIR}/zruiserver-autostart)

install(TARGETS ZRUIServer RUNTIME DESTINATION ${ZRUI_INSTALL_DIR} COMPONENT server)
install(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/resources.rcc
              ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/integrityprotect.ini
        DESTINATION ${ZRUI_INSTALL_DIR} COMPONENT server)
# The installed configuration names the token stack's own directory; the
# development one in the build tree points at the stand-in libraries.
install(FILES ${CMAKE_SOURCE_DIR}/resources/ZRUIConf.ini.installed
        DESTINATION ${ZRUI_INSTALL_DIR} RENAME ZRUIConf.ini COMPONENT server)

set(_dist ${CMAKE_SOURCE_DIR}/dist)
set(_gen ${CMAKE_BINARY_DIR}/dist)
configure_file(${_dist}/systemd/zruiserver.service.in ${_gen}/zruiserver.service @ONLY)
configure_file(${_dist}/xdg/zruiserver-autostart.in ${_gen}/zruiserver-autostart @ONLY)
configure_file(${_dist}/xdg/zruiserver.desktop.in ${_gen}/zruiserver.desktop @ONLY)
install(FILES ${_dist}/systemd/zruiserver.socket ${_gen}/zruiserver.service
        DESTINATION lib/systemd/user COMPONENT server)
install(PROGRAMS ${_gen}/zruiserver-autostart DESTINATION ${ZRUI_INSTALL_DIR} COMPONENT server)
install(FILES ${_gen}/zruiserver.desktop
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/xdg/autostart COMPONENT server)
install(FILES ${_dist}/man/ZRUIServer.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT server)

install(TARGETS zrui-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cli)
install(FILES ${_dist}/man/zrui-cli.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT cli)

# Client library: libzrui-client.so.0, headers under zrui/, pkg-config and
# CMake package (find_package(ZruiClient) gives Zrui::client).
install(TARGETS zrui_client_shared EXPORT ZruiClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client NAMELINK_SKIP
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zrui_client_shared
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client-dev NAMELINK_ONLY)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/client/include/zrui
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT client-dev)
set(ZRUI_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
set(ZRUI_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${_dist}/pkgconfig/zrui-client.pc.in ${_gen}/zrui-client.pc @ONLY)
install(FILES ${_gen}/zrui-client.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT client-dev)
set(_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/ZruiClient)
install(EXPORT ZruiClientTargets NAMESPACE Zrui:: DESTINATION ${_cmakedir} COMPONENT client-dev)
configure_package_config_file(${_dist}/cmake/ZruiClientConfig.cmake.in
                              ${_gen}/ZruiClientConfig.cmake INSTALL_DESTINATION ${_cmakedir})
write_basic_package_version_file(${_gen}/ZruiClientConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${_gen}/ZruiClientConfig.cmake ${_gen}/ZruiClientConfigVersion.cmake
        DESTINATION ${_cmakedir} COMPONENT client-dev)

# The stand-in token stack, to try the program without a token: its three
# libraries and their settings, and a configuration whose SAFEPATH names them.
install(TARGETS zrkapi zralg aux LIBRARY DESTINATION ${ZRUI_TOKENSIM_INSTALL_DIR}
        COMPONENT tokensim)
install(FILES ${ZRUI_TOKENSIM_DIR}/tokensim.ini ${ZRUI_TOKENSIM_DIR}/wait.gif
        DESTINATION ${ZRUI_TOKENSIM_INSTALL_DIR} COMPONENT tokensim)
file(GENERATE OUTPUT ${_gen}/tokensim/ZRUIConf.ini
     CONTENT "; The stand-in token stack of zruiserver-tokensim.\nSAFEPATH=${CMAKE_INSTALL_PREFIX}/${ZRUI_TOKENSIM_INSTALL_DIR}/\n")
install(FILES ${_gen}/tokensim/ZRUIConf.ini DESTINATION ${ZRUI_TOKENSIM_INSTALL_DIR}
        COMPONENT tokensim)
configure_file(${_dist}/tokensim/zruiserver-tokensim.in ${_gen}/zruiserver-tokensim @ONLY)
install(PROGRAMS ${_gen}/zruiserver-tokensim DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT tokensim)
install(FILES ${_dist}/man/zruiserver-tokensim.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tokensim)
