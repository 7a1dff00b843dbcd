# The RPM and DEB packages that `cpack -G RPM` and `cpack -G DEB` make from a build with prefix /usr. package.sh makes and
# tests them. Packagers set CPACK_PACKAGE_CONTACT to their name.
set(CPACK_PACKAGE_CONTACT "The builder of this package <nobody@localhost>" CACHE STRING "Who makes the packages")
set(CPACK_PACKAGE_VENDOR ${PROJECT_NAME})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_RELEASE 1)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/FinishPackages.cmake)

set(CPACK_COMPONENTS_ALL agent library host devel)
set(CPACK_COMPONENTS_GROUPING IGNORE) # a package each

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CPACK_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/host)
file(WRITE ${CMAKE_BINARY_DIR}/conffiles "${settings_folder}/registry.ini\n")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE ${CPACK_PACKAGE_RELEASE})
set(CPACK_RPM_PACKAGE_RELEASE_DIST ON)
set(CPACK_RPM_PACKAGE_LICENSE LicenseRef-Not-Chosen) # the owner has chosen none
set(CPACK_PACKAGE_RELOCATABLE OFF) # the settings are read from /etc
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Libraries")
set(CPACK_RPM_AGENT_PACKAGE_GROUP Applications/System)
set(CPACK_RPM_DEVEL_PACKAGE_GROUP Development/Libraries)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION # owned by other packages
  /usr/share/bash-completion /usr/share/bash-completion/completions
  /usr/share/man /usr/share/man/man1 /usr/share/man/man5
  ${CMAKE_INSTALL_FULL_LIBDIR}/cmake ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
set(CPACK_RPM_AGENT_USER_FILELIST "%config(noreplace) ${settings_folder}/registry.ini")
# Private libraries: neither provided nor required by name.
set(CPACK_RPM_SPEC_MORE_DEFINE "\
%global __provides_exclude_from ^${CMAKE_INSTALL_FULL_LIBDIR}/zniscsi/.*[.]so$
%global __requires_exclude ^lib(ZnISCSI|ZnLib|ZNSnapHandler|ZnDeviceTree|HxUtils)[.]so
%define packager ${CPACK_PACKAGE_CONTACT}
%define _build_id_links none
%define _buildhost localhost
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1")

function(zn_package component deb rpm section summary text)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${deb} PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)
  set(CPACK_RPM_${component}_PACKAGE_NAME ${rpm} PARENT_SCOPE)
  set(CPACK_RPM_${component}_PACKAGE_SUMMARY "${summary}" PARENT_SCOPE)
  set(CPACK_RPM_${component}_PACKAGE_DESCRIPTION "${text}" PARENT_SCOPE)
endfunction()

zn_package(AGENT zniscsi zniscsi admin "Command line for the iSCSI initiator of this host" "\
Runs discovery, log-on (plainly or with CHAP) and log-off, deletes node
records, and finds the disks of a target and the target behind a disk. It
drives iscsiadm, and answers what the kernel shows, whatever the tool said.")
zn_package(LIBRARY libzniscsi libzniscsi libs "Library that drives the iSCSI initiator of this host" "\
libZnISCSI.so, which a data-management agent loads. It needs four libraries
of its host: the agent's own, or those of libzniscsi-host.")
zn_package(HOST libzniscsi-host libzniscsi-host libs "Stand-alone host of libzniscsi" "\
Log, process runner, device tree, registry, detector and sleep for agents
that have none of their own.")
zn_package(DEVEL libzniscsi-dev libzniscsi-devel libdevel "Development files of libzniscsi" "\
The headers of the contract between libZnISCSI.so and its host, the
stand-alone host's additions, and what CMake and pkg-config have to know.")

set(same ${PROJECT_VERSION}-${CPACK_PACKAGE_RELEASE})
foreach(component AGENT DEVEL)
  set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "libzniscsi (= ${same}), libzniscsi-host (= ${same})")
  set(CPACK_RPM_${component}_PACKAGE_REQUIRES
    "libzniscsi%{?_isa} = %{version}-%{release}, libzniscsi-host%{?_isa} = %{version}-%{release}")
endforeach()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS libzniscsi-host)

include(CPack)
