# Installation: libraries, headers, the engine, the tool, the directories of each boot, a pkg-config
# file and a CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS zorvbtrfssnapusage zorvplatform EXPORT zorvbtrfssnapusage
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The library runs /sbin/btrfs: with the prefix /usr on a merged system, or / on others, it is this.
install(TARGETS zorv_btrfs_engine RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zorv-snapusage RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# In lib whatever the architecture: the one place below a prefix where it is looked for.
install(FILES packaging/tmpfiles.d/zorvbtrfssnapusage.conf DESTINATION lib/tmpfiles.d)
install(FILES packaging/systemd/run-lock-zorvbtrfssnapusage.mount DESTINATION lib/systemd/system)
install(DIRECTORY include/zorvbtrfssnapusage platform/include/zorvplatform
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN *.h)

# Relative to the file itself, so that an installation can be moved.
file(RELATIVE_PATH ZORV_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zorvbtrfssnapusage.pc.in ${PROJECT_BINARY_DIR}/zorvbtrfssnapusage.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zorvbtrfssnapusage.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zorvbtrfssnapusage)
install(EXPORT zorvbtrfssnapusage NAMESPACE zorvbtrfssnapusage:: DESTINATION ${package_dir}
  FILE zorvbtrfssnapusageTargets.cmake)
configure_package_config_file(cmake/zorvbtrfssnapusageConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zorvbtrfssnapusageConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zorvbtrfssnapusageConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zorvbtrfssnapusageConfig.cmake
  ${PROJECT_BINARY_DIR}/zorvbtrfssnapusageConfigVersion.cmake DESTINATION ${package_dir})
