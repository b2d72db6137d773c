# The Debian packages: `cpack -G DEB` makes one package of each install component.
#   libscsitool1     the shared libraries (shlibs file, ldconfig trigger)
#   libscsitool-dev  headers, link names, the simulated host, the CMake and pkg-config files
#   scsitool         the command, its manual page and bash completion
# Binaries are stripped, manual pages compressed (cmake/deb-staging.cmake); each package carries
# the copyright file and the changelog, which a plain install leaves out.
set(CPACK_PACKAGE_NAME scsitool)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: each package's description starts with its own synopsis.
set(CPACK_PACKAGE_CONTACT "libscsitool developers <scsitool@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development command)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/deb-staging.cmake)
set(CPACK_SCSITOOL_STRIP ${CMAKE_STRIP})

# The ACE packages this build used: the library's for the runtime, the headers' for development.
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
scsitool_deb_owner(${ACE_LIBRARY} SCSITOOL_ACE_DEB)
scsitool_deb_owner(${ACE_INCLUDE_DIR}/ace/Configuration.h SCSITOOL_ACE_DEV_DEB)
set(SCSITOOL_LIB_DEB "libscsitool1 (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libscsitool1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1${SCSITOOL_ACE_DEB}")
# The shlibs file, and the trigger that runs ldconfig (cpack's postinst and postrm also call it,
# which does no harm).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${CMAKE_BINARY_DIR}/debian/runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/runtime/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (library)
libscsitool names every disk the host sees by the storage-array volume it is,
under a name that stays the same across paths, reboots and hosts. It reads
INQUIRY data and VPD pages through the Linux SCSI ioctls, keeps the device
map, rescans buses and removes dead devices.
.
This package holds the shared libraries libscsitool and libfikit.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libscsitool-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${SCSITOOL_LIB_DEB}${SCSITOOL_ACE_DEV_DEB}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (development files)
libscsitool names every disk the host sees by the storage-array volume it is.
.
This package holds the headers, the CMake package and the pkg-config file,
and the simulated host: a static library that answers the library's system
calls from a host snapshot, to test a program against a captured host.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME scsitool)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "${SCSITOOL_LIB_DEB}, libc6, libstdc++6, libgcc-s1, libsmartcols1")
set(CPACK_COMPONENT_COMMAND_DESCRIPTION
  "unique device ids of SCSI disks and multipath devices (command)
scsitool shows the device map of this host with each disk's address, kind,
state and unique device id, one device's identity and pages, and captures a
host's SCSI view as a snapshot that replays anywhere.")

configure_file(${CMAKE_SOURCE_DIR}/cmake/changelog.in ${CMAKE_BINARY_DIR}/debian/changelog @ONLY)
execute_process(COMMAND gzip -9nc ${CMAKE_BINARY_DIR}/debian/changelog
  OUTPUT_FILE ${CMAKE_BINARY_DIR}/debian/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component runtime development command)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_SOURCE_DIR}/cmake/copyright ${CMAKE_BINARY_DIR}/debian/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
