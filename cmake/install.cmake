# What is installed where, in the components runtime, development, tools and documentation, and Debian packages of them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Wherever it is installed but in the system's own folders, libatls.so finds the platform layer beside itself.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(atls PROPERTIES INSTALL_RPATH "$ORIGIN")
    set(program_rpath "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

install(TARGETS atls EXPORT atlsTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS atls-platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(FILES include/atls.h include/proxymanager.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES platform/platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/atls COMPONENT development)

configure_file(cmake/atls.pc.in atls.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/atls.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/atls)
configure_package_config_file(cmake/atlsConfig.cmake.in atlsConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(atlsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/atlsConfig.cmake ${PROJECT_BINARY_DIR}/atlsConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT development)
install(EXPORT atlsTargets NAMESPACE atls:: DESTINATION ${package_folder} COMPONENT development)

if(ATLS_BUILD_TOOLS)
    set(programs atls-post atls-server proxymanagerd proxymanagerctl)
    set_target_properties(${programs} PROPERTIES INSTALL_RPATH "${program_rpath}")
    install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES data/com.halvo.ProxyManagerServiceInterface.xml
            DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces COMPONENT tools)
    install(FILES data/com.halvo.ProxyManagerService.conf
            DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT tools)
    configure_file(data/proxymanagerd.service.in proxymanagerd.service @ONLY)
    # systemd looks there, whatever the library folder is called.
    install(FILES ${PROJECT_BINARY_DIR}/proxymanagerd.service DESTINATION lib/systemd/system COMPONENT tools)
endif()

if(ATLS_INSTALL_DOCUMENTATION)
    install(FILES README.md SECURITY.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
    install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT documentation FILES_MATCHING PATTERN *.md
                                                                                              PATTERN *.svg
                                                                                              PATTERN man EXCLUDE)
    install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT documentation)
    foreach(page atls.3 proxymanager.3)
        install(FILES docs/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT documentation)
    endforeach()
    if(ATLS_BUILD_TOOLS)
        install(FILES docs/man/atls-post.1 docs/man/atls-server.1 docs/man/proxymanagerctl.1
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
        install(FILES docs/man/proxymanagerd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)
    endif()
endif()

# ---- Debian packages

if(NOT top_level)
    return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The libatls developers")
set(CPACK_PACKAGE_CONTACT "The libatls developers <libatls@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libatls1)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "Application-layer TLS over HTTPS, and a client of the device's proxy manager")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_HEADERS_PACKAGE_NAME libatls-dev)
set(CPACK_DEBIAN_HEADERS_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_HEADERS_DESCRIPTION "Headers, documentation and examples of libatls")
# The private requirements of the pkg-config file must be there, too.
set(CPACK_DEBIAN_HEADERS_PACKAGE_DEPENDS "libatls1 (= ${PROJECT_VERSION}), libcurl4-openssl-dev | libcurl-dev, libssl-dev, \
libdbus-1-dev, libdbus-c++-dev, libsafec-dev")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME atls-tools)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION "Programs around libatls: posting messages, a reference service, the proxy manager")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS "libatls1 (= ${PROJECT_VERSION})")
include(CPack)
cpack_add_component_group(library)
cpack_add_component_group(headers)
cpack_add_component_group(programs)
cpack_add_component(runtime GROUP library)
cpack_add_component(development GROUP headers)
cpack_add_component(documentation GROUP headers)
cpack_add_component(tools GROUP programs)
