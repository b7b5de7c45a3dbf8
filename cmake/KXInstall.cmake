include(CMakePackageConfigHelpers)

install(TARGETS KXClientFramework EXPORT KXClientFrameworkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${KX_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KXClientFramework)
install(EXPORT KXClientFrameworkTargets NAMESPACE KXClientFramework::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXClientFramework)

configure_package_config_file(cmake/KXClientFrameworkConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/KXClientFrameworkConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXClientFramework)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/KXClientFrameworkConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KXClientFrameworkConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/KXClientFrameworkConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXClientFramework)

# The pkg-config file finds its prefix relative to itself, so the install can be moved.
file(RELATIVE_PATH KX_PC_PREFIX_FROM_PCFILEDIR
    "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/KXClientFramework.pc.in ${CMAKE_CURRENT_BINARY_DIR}/KXClientFramework.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KXClientFramework.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
