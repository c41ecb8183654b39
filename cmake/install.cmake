# Installing, as users of the field's libraries expect: the library and the
# SQLite host (shared, versioned), their headers under one include folder
# (include/libzqrtree/{zqrtree,zqhost,host}), the SQLite extension beside
# them, the zqrtree tool and its man page, a CMake package
# (find_package(zqrtree) gives zqrtree::zqrtree and zqrtree::zqhost) and a
# pkg-config file. `make package` turns the same tree into a Debian package
# with CPack. The version everywhere is the project's, set once in
# project().
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZQ_INCLUDE_DEST ${CMAKE_INSTALL_INCLUDEDIR}/libzqrtree)
set(ZQ_CMAKE_DEST ${CMAKE_INSTALL_LIBDIR}/cmake/zqrtree)

set_target_properties(zqrtree zqhost PROPERTIES VERSION ${PROJECT_VERSION}
                                                SOVERSION ${PROJECT_VERSION_MAJOR})
install(TARGETS zqrtree zqhost EXPORT zqrtreeTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries
        INCLUDES DESTINATION ${ZQ_INCLUDE_DEST})
install(DIRECTORY include/zqrtree include/zqhost DESTINATION ${ZQ_INCLUDE_DEST}
        COMPONENT development)
install(FILES host/host.h DESTINATION ${ZQ_INCLUDE_DEST}/host COMPONENT development)

# The extension sits beside the libraries it needs ($ORIGIN), where
# `.load zqrtree_ext` also finds it once the directory is the system's.
if(TARGET zqrtree_ext)
  install(TARGETS zqrtree_ext LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries)
endif()
if(TARGET zqrtree_tool)
  set_target_properties(zqrtree_tool PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS zqrtree_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES tools/zqrtree.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
endif()

install(EXPORT zqrtreeTargets NAMESPACE zqrtree:: DESTINATION ${ZQ_CMAKE_DEST}
        COMPONENT development)
configure_package_config_file(cmake/zqrtreeConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/zqrtreeConfig.cmake
                              INSTALL_DESTINATION ${ZQ_CMAKE_DEST})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zqrtreeConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zqrtreeConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zqrtreeConfigVersion.cmake
        DESTINATION ${ZQ_CMAKE_DEST} COMPONENT development)

# The .pc file finds its prefix from where it lies, so an installed tree
# may be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH ZQ_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZQ_PC_TO_PREFIX "${ZQ_PC_TO_PREFIX}")
configure_file(cmake/zqrtree.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zqrtree.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zqrtree.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# A consumer built against a freshly installed tree, both ways, and the
# installed tool and extension run; the Python package installed by pip
# and tested. Sanitizer builds are left out: their libraries need the
# sanitizer runtime loaded first by every program.
if(NOT ZQ_SANITIZE AND NOT ZQ_FUZZ AND TARGET zqrtree_tool AND TARGET zqrtree_ext)
  add_test(NAME install_consumer
           COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-install.sh ${CMAKE_BINARY_DIR})
  add_test(NAME python_package
           COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-python.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(install_consumer python_package PROPERTIES TIMEOUT 600)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zqrtree)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libzqrtree developers <zqrtree@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "R*-tree spatial indexes in database tables: library, SQLite host, extension and tool")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# The libraries' own directory: dpkg-shlibdeps then knows they come with
# the package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
include(CPack)
