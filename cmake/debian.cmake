# SPDX-License-Identifier: Apache-2.0
# The Debian packages: `cpack -G DEB` makes one package of each install component.
#   libscsitool-fikit1  the framework kit libfikit (shlibs file, ldconfig trigger)
#   libscsitool1        the library (shlibs file, ldconfig trigger)
#   libscsitool-dev     headers, link names, the simulated host, the CMake and pkg-config files
#   scsitool            the command, its manual page and bash completion
# and a -dbgsym package of each that holds binaries. Dependencies on other packages come from
# dpkg-shlibdeps, versioned. Binaries are stripped, manual pages compressed
# (cmake/deb-staging.cmake); each package carries the copyright file and the changelog, which a
# plain install leaves out.
set(CPACK_PACKAGE_NAME scsitool)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: each package's description starts with its own synopsis.
set(CPACK_PACKAGE_CONTACT "libscsitool developers <scsitool@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL kit runtime development command)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The debug information goes to the -dbgsym packages, and the binaries are stripped as it is
# taken out (cpack takes it only from binaries that it has not stripped itself).
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the kit and the library in the build tree; the dependencies on them are
# named below (they have no installed shlibs file yet).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/deb-staging.cmake)
set(CPACK_SCSITOOL_STRIP ${CMAKE_STRIP})

# The development package names the ACE headers' package this build used (and simdjson's, which
# the simulated host links).
function(scsitool_deb_owner path variable)
  get_filename_component(real ${path} REALPATH)
  execute_process(COMMAND dpkg-query -S ${real} OUTPUT_VARIABLE owner
    ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(owner MATCHES "^([^:,]+)[:,]")
    set(${variable} ", ${CMAKE_MATCH_1}" PARENT_SCOPE)
  else()
    set(${variable} "" PARENT_SCOPE)
  endif()
endfunction()
scsitool_deb_owner(${ACE_INCLUDE_DIR}/ace/Configuration.h SCSITOOL_ACE_DEV_DEB)
set(SCSITOOL_LIB_DEB "libscsitool1 (= ${PROJECT_VERSION})")
# The framework's own kit serves as well as ours: a framework package that provides
# kzfi-pdk-4-4 lets the library be installed without libscsitool-fikit1.
set(SCSITOOL_KIT_DEB "libscsitool-fikit1 (= ${PROJECT_VERSION}) | kzfi-pdk-4-4")

set(CPACK_DEBIAN_KIT_PACKAGE_NAME libscsitool-fikit1)
set(CPACK_DEBIAN_KIT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KIT_PACKAGE_PROVIDES kzfi-pdk-4-4)
set(CPACK_COMPONENT_KIT_DESCRIPTION
  "framework kit for libscsitool
libscsitool runs inside a snapshot framework's device provider and calls the
framework's plug-in kit (namespace kzfi_pdk_4_4) for tracing, configuration
and running commands. This package holds a kit of its own, libfikit, for
programs that run the library outside the framework. Inside the framework
its own kit serves and this package is not needed.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libscsitool1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${SCSITOOL_KIT_DEB}")
# The shlibs file, and the trigger that runs ldconfig (cpack's postinst and postrm also call it,
# which does no harm).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${PROJECT_BINARY_DIR}/debian/runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/runtime/triggers)
set(CPACK_DEBIAN_KIT_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/runtime/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (library)
libscsitool names every disk the host sees by the storage-array volume it is,
under a name that stays the same across paths, reboots and hosts. It reads
INQUIRY data and VPD pages through the Linux SCSI ioctls, keeps the device
map, rescans buses and removes dead devices.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libscsitool-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${SCSITOOL_LIB_DEB}, libscsitool-fikit1 (= ${PROJECT_VERSION})${SCSITOOL_ACE_DEV_DEB}, libsimdjson-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (development files)
libscsitool names every disk the host sees by the storage-array volume it is.
.
This package holds the headers, the CMake package and the pkg-config file,
and the simulated host: a static library that answers the library's system
calls from a host snapshot, to test a program against a captured host.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME scsitool)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "${SCSITOOL_LIB_DEB}, libscsitool-fikit1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_COMMAND_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (command)
scsitool shows the device map of this host with each disk's address, kind,
state and unique device id, one device's identity and pages, and captures a
host's SCSI view as a snapshot that replays anywhere.")

configure_file(${PROJECT_SOURCE_DIR}/cmake/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(COMMAND gzip -9nc ${PROJECT_BINARY_DIR}/debian/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
# What lintian is told, each with its reason: the kit's package is named for this project, not
# for the library's SONAME, so that no other package can claim it; and cpack's own maintainer
# scripts call ldconfig, which the trigger makes redundant but not harmful.
set(SCSITOOL_LDCONFIG_REASON "# cpack's maintainer scripts call ldconfig; the ldconfig trigger makes that redundant.")
file(WRITE ${PROJECT_BINARY_DIR}/debian/overrides/libscsitool-fikit1
  "# The kit stands in for the framework's own libfikit; the package is named for this project.\n"
  "libscsitool-fikit1: package-name-doesnt-match-sonames libfikit1\n"
  "${SCSITOOL_LDCONFIG_REASON}\n"
  "libscsitool-fikit1: maintscript-calls-ldconfig [postinst]\n"
  "libscsitool-fikit1: maintscript-calls-ldconfig [postrm]\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/overrides/libscsitool1
  "${SCSITOOL_LDCONFIG_REASON}\n"
  "libscsitool1: maintscript-calls-ldconfig [postinst]\n"
  "libscsitool1: maintscript-calls-ldconfig [postrm]\n")
install(FILES ${PROJECT_BINARY_DIR}/debian/overrides/libscsitool-fikit1
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT kit EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_BINARY_DIR}/debian/overrides/libscsitool1
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT runtime EXCLUDE_FROM_ALL)
foreach(component kit runtime development command)
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
