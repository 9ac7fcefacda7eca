# What `cmake --install` lays down: libraries, headers, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

set_target_properties(zrplatform PROPERTIES EXPORT_NAME Platform)
install(TARGETS ZrLog zrplatform ZrUtility EXPORT ZrUtilityTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# A header whose name begins with a small letter is private to its library.
install(DIRECTORY ZrUtility ZrLog DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING REGEX "/[A-Z][^/]*\\.h$")
install(DIRECTORY platform/include/platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ZrUtility)
install(EXPORT ZrUtilityTargets NAMESPACE ZrUtility:: DESTINATION ${package_dir})
configure_package_config_file(cmake/ZrUtilityConfig.cmake.in ${PROJECT_BINARY_DIR}/ZrUtilityConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZrUtilityConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZrUtilityConfig.cmake ${PROJECT_BINARY_DIR}/ZrUtilityConfigVersion.cmake
        DESTINATION ${package_dir})

function(zr_pkgconfig name library description requires)
  configure_file(cmake/package.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
zr_pkgconfig(ZrLog ZrLog "Binary log of the mail and contacts client" "")
zr_pkgconfig(zrplatform zrplatform "The handheld platform's services on Linux" "")
zr_pkgconfig(ZrUtility ZrUtility "Utility library of the mail and contacts client" "zrplatform ZrLog")
install(FILES LICENSE README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
