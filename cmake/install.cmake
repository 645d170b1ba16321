# Installed: both libraries, shared and static, the public headers, pkg-config
# files and a CMake package: find_package(mediafiles), target
# mediafiles::mediafiles; with COMPONENTS recorder also
# mediafiles::mediafiles-recorder.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mediafiles)

install(TARGETS mediafiles mediafiles-static EXPORT mediafiles-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY include/mediafiles COMPONENT dev DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN *.h PATTERN recorder.h EXCLUDE PATTERN recovery.h EXCLUDE)
install(EXPORT mediafiles-targets NAMESPACE mediafiles:: COMPONENT dev DESTINATION ${package_dir})

install(TARGETS mediafiles-recorder mediafiles-recorder-static EXPORT mediafiles-recorder-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT recorder NAMELINK_COMPONENT recorder-dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT recorder-dev)
install(FILES include/mediafiles/recorder.h include/mediafiles/recorder.hpp include/mediafiles/recovery.h
    COMPONENT recorder-dev DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mediafiles)
install(EXPORT mediafiles-recorder-targets NAMESPACE mediafiles:: COMPONENT recorder-dev DESTINATION ${package_dir})

configure_package_config_file(cmake/mediafiles-config.cmake.in ${PROJECT_BINARY_DIR}/mediafiles-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mediafiles-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mediafiles-config.cmake ${PROJECT_BINARY_DIR}/mediafiles-config-version.cmake
    COMPONENT dev DESTINATION ${package_dir})

configure_file(cmake/mediafiles.pc.in ${PROJECT_BINARY_DIR}/mediafiles.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mediafiles.pc COMPONENT dev DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
math(EXPR next_minor "${PROJECT_VERSION_MINOR} + 1")
configure_file(cmake/mediafiles-recorder.pc.in ${PROJECT_BINARY_DIR}/mediafiles-recorder.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mediafiles-recorder.pc COMPONENT recorder-dev
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
