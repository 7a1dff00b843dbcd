# Installed files other than the targets.

# The settings are read from /etc. With another prefix than /usr this is a file to copy.
set(settings_directory ${CMAKE_INSTALL_SYSCONFDIR}/zniscsi)
if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
  set(settings_directory /etc/zniscsi)
endif()
install(FILES standalone/registry.ini.example DESTINATION ${settings_directory} RENAME registry.ini)

# The headers of the contract, and the stand-alone host's additions. They include each other by relative paths, so that
# <zniscsi/interface/ZnISCSI.h> needs no -I.
foreach(header
    host/CHxError.h
    host/EvDebug.h
    host/HxSleep.h
    host/OSType.h
    host/SP.h
    host/ZNPI_PlatformBase.h
    host/ZNPlatformInfo.h
    host/ZnDeviceTree.h
    host/ZnProcess.h
    interface/ZnISCSI.h
    interface/ZnISCSICommonUtils.h
    multipath/ZnISCSILinux.h
    redhat/ZnISCSILinuxRedhat.h
    standalone/hxutils/Pauses.h
    standalone/zndevicetree/SysfsTree.h
    standalone/znlib/Log.h
    standalone/znlib/OsDetector.h
    standalone/znlib/ProcessRunner.h
    standalone/znlib/Registry.h)
  get_filename_component(directory ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zniscsi/${directory})
endforeach()
install(FILES docs/hosts.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# find_package(zniscsi) gives zniscsi::ZnISCSI, the library, and zniscsi::host, the stand-alone host.
include(CMakePackageConfigHelpers)
set(config_directory ${CMAKE_INSTALL_LIBDIR}/cmake/zniscsi)
write_basic_package_version_file(zniscsiConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zniscsiConfigVersion.cmake DESTINATION ${config_directory})
install(EXPORT zniscsi FILE zniscsiConfig.cmake NAMESPACE zniscsi:: DESTINATION ${config_directory})

# pkg-config zniscsi gives both. Its prefix is known at the installation only, which can name another one. A packager's
# directory may be absolute.
set(prefix @prefix@)
foreach(directory INCLUDEDIR LIBDIR)
  set(pc_${directory} ${CMAKE_INSTALL_${directory}})
  if(NOT IS_ABSOLUTE ${pc_${directory}})
    string(PREPEND pc_${directory} \${prefix}/)
  endif()
endforeach()
set(pc ${CMAKE_CURRENT_BINARY_DIR}/zniscsi.pc)
configure_file(cmake/zniscsi.pc.in ${pc}.in @ONLY)
install(CODE "
  get_filename_component(prefix \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
  configure_file(\"${pc}.in\" \"${pc}\" @ONLY)")
install(FILES ${pc} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
