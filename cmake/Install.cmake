# Installation: libraries, headers, the engine, the tool, the directories of each boot, a pkg-config
# file and a CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS zorvbtrfssnapusage zorvplatform EXPORT zorvbtrfssnapusage
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The engine has a place of its own. The library runs /sbin/btrfs, which with the prefix /usr is the
# link here: who wants the command btrfs left alone leaves this component out.
set(engine_dir ${CMAKE_INSTALL_LIBEXECDIR}/zorv-snapusage)
install(TARGETS zorv_btrfs_engine RUNTIME DESTINATION ${engine_dir})
file(RELATIVE_PATH engine_link /${CMAKE_INSTALL_SBINDIR} /${engine_dir}/btrfs)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/btrfs-command)
file(CREATE_LINK ${engine_link} ${PROJECT_BINARY_DIR}/btrfs-command/btrfs SYMBOLIC)
install(FILES ${PROJECT_BINARY_DIR}/btrfs-command/btrfs DESTINATION ${CMAKE_INSTALL_SBINDIR}
  COMPONENT btrfs_command)
install(TARGETS zorv-snapusage RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# In lib whatever the architecture: the one place below a prefix where it is looked for.
install(FILES packaging/tmpfiles.d/zorvbtrfssnapusage.conf DESTINATION lib/tmpfiles.d)
install(FILES packaging/systemd/run-lock-zorvbtrfssnapusage.mount DESTINATION lib/systemd/system)
foreach(unit zorv-snapusage@.service zorv-snapusage@.timer)
  configure_file(packaging/systemd/${unit}.in ${PROJECT_BINARY_DIR}/systemd/${unit} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/systemd/${unit} DESTINATION lib/systemd/system)
endforeach()
# What the manual pages and the messages lead to.
install(FILES docs/concepts.md docs/sources.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zorv-snapusage)
install(FILES completion/zorv-snapusage.bash RENAME zorv-snapusage
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completion/_zorv-snapusage
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
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
