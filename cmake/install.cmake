# What is installed where, in the components runtime, standin, development, tools, services and documentation.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

foreach(folder LIBDIR BINDIR LIBEXECDIR)
    get_filename_component(full_${folder} "${CMAKE_INSTALL_${folder}}" ABSOLUTE BASE_DIR "${CMAKE_INSTALL_PREFIX}")
endforeach()

# Wherever it is installed but in the system's own folders, libatls.so finds the platform layer beside itself, and the
# programs find it.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH from_programs "${full_BINDIR}" "${full_LIBDIR}")
    set_target_properties(atls PROPERTIES INSTALL_RPATH "$ORIGIN")
    set(program_rpath "$ORIGIN/${from_programs}")
endif()

configure_file(cmake/prefix.cmake.in prefix.cmake @ONLY)

install(TARGETS atls EXPORT atlsTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS atls-platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT standin)
# systemd looks below lib, whatever the library folder is called.
install(FILES data/libatls.tmpfiles.conf DESTINATION lib/tmpfiles.d COMPONENT runtime RENAME libatls.conf)
install(FILES include/atls.h include/atls.hpp include/proxymanager.h include/proxymanager.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES platform/platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/atls COMPONENT development)

install(SCRIPT ${PROJECT_BINARY_DIR}/prefix.cmake COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/atls.pc ${PROJECT_BINARY_DIR}/atls-cpp.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/atls)
configure_package_config_file(cmake/atlsConfig.cmake.in atlsConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(atlsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/atlsConfig.cmake ${PROJECT_BINARY_DIR}/atlsConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT development)
install(EXPORT atlsTargets NAMESPACE atls:: DESTINATION ${package_folder} COMPONENT development)

# install_programs COMPONENT PROGRAM...
function(install_programs component)
    set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "${program_rpath}")
    install(TARGETS ${ARGN} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
    if(ATLS_INSTALL_DOCUMENTATION)
        foreach(program ${ARGN})
            file(GLOB page docs/man/${program}.*)
            get_filename_component(section ${page} LAST_EXT)
            string(REPLACE "." "man" section ${section})
            install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/${section} COMPONENT ${component})
        endforeach()
    endif()
endfunction()

if(TARGET atls-post)
    install_programs(tools atls-post proxymanagerctl)
endif()
if(TARGET proxymanagerd)
    install_programs(services atls-server proxymanagerd)
    # What is for no user; proxymanagerd finds it from where it is itself.
    install(TARGETS evaluate-pac RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/atls COMPONENT services)
    file(RELATIVE_PATH to_evaluator "${full_BINDIR}" "${full_LIBEXECDIR}/atls")
    target_compile_definitions(proxymanagerd PRIVATE FROM_PROGRAMS_TO_EVALUATOR="${to_evaluator}")
    install(FILES data/com.halvo.ProxyManagerServiceInterface.xml
            DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces COMPONENT services)
    install(FILES data/com.halvo.ProxyManagerService.conf
            DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT services)
    install(SCRIPT ${PROJECT_BINARY_DIR}/prefix.cmake COMPONENT services)
    install(FILES ${PROJECT_BINARY_DIR}/proxymanagerd.service DESTINATION lib/systemd/system COMPONENT services)
    install(FILES data/proxymanagerd.sysusers.conf DESTINATION lib/sysusers.d COMPONENT services
            RENAME proxymanagerd.conf)
endif()

if(ATLS_INSTALL_DOCUMENTATION)
    install(FILES README.md SECURITY.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
    install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT documentation FILES_MATCHING PATTERN *.md
                                                                                              PATTERN *.svg
                                                                                              PATTERN man EXCLUDE)
    install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT documentation)
    foreach(page atls.3 atls.hpp.3 proxymanager.3 proxymanager.hpp.3)
        install(FILES docs/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT documentation)
    endforeach()
endif()
