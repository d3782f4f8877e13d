# What is installed beside the programs and libraries: what those need who build nodes of their own, and documents.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ArborInstall)
configure_package_config_file(cmake/ArborInstallConfig.cmake.in ArborInstallConfig.cmake
    INSTALL_DESTINATION ${package_folder} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(ArborInstallConfigVersion.cmake COMPATIBILITY ExactVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ArborInstallConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/ArborInstallConfigVersion.cmake
    DESTINATION ${package_folder})
install(EXPORT ArborInstallTargets NAMESPACE ArborInstall:: DESTINATION ${package_folder})

configure_file(cmake/arbor-install.pc.in arbor-install.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/arbor-install.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The node to copy. Its test stands on the project's own support for tests.
install(DIRECTORY examples/sample_node DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/arbor-install-dev/examples
    PATTERN "*Test.cpp" EXCLUDE)

install(FILES README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/arbor-install)
install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/arbor-install/docs)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/arbor-install/docs)

# The manual. It is what the programs say of themselves, so they run for it; a build for another machine takes the pages of one for
# this machine.
set(ARBOR_MANUAL "" CACHE PATH "Folder with the manual's pages, where the programs don't run here")
find_package(Python3 3.11 COMPONENTS Interpreter)
if(NOT ARBOR_MANUAL AND Python3_FOUND AND NOT ARBOR_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
    set(ARBOR_MANUAL ${CMAKE_CURRENT_BINARY_DIR}/manual)
    add_custom_command(OUTPUT ${ARBOR_MANUAL}/arbord.8
        COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/scripts/manpages.py ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
                ${PROJECT_VERSION} ${ARBOR_MANUAL}
        DEPENDS arbor_programs arbord arborctl arbor-boot scripts/manpages.py scripts/settings.py host/system/graph.json packages/arborpkg/cli.py
        VERBATIM)
    add_custom_target(arbor_manual ALL DEPENDS ${ARBOR_MANUAL}/arbord.8)
endif()
if(ARBOR_MANUAL)
    install(FILES ${ARBOR_MANUAL}/arborctl.1 ${ARBOR_MANUAL}/arbor-pkg.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${ARBOR_MANUAL}/arbor-graph.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
    install(FILES ${ARBOR_MANUAL}/arbord.8 ${ARBOR_MANUAL}/arbor-boot.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endif()
