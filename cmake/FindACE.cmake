# SPDX-License-Identifier: Apache-2.0
# Finds the ACE library and its headers and defines the imported target ACE::ACE.
# Installed with the CMake package, so a consumer finds ACE on its own machine wherever it is
# (a hint: ACE_ROOT, or CMAKE_PREFIX_PATH) instead of where the library was built.
#
#   ACE_FOUND, ACE_LIBRARY, ACE_INCLUDE_DIR, ACE_VERSION (when ace/Version.h tells it)

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PC_ACE QUIET ACE)
endif()

find_path(ACE_INCLUDE_DIR NAMES ace/Configuration.h
  HINTS ${ACE_ROOT} ENV ACE_ROOT ${PC_ACE_INCLUDEDIR} ${PC_ACE_INCLUDE_DIRS}
  PATH_SUFFIXES include)
find_library(ACE_LIBRARY NAMES ACE
  HINTS ${ACE_ROOT} ENV ACE_ROOT ${PC_ACE_LIBDIR} ${PC_ACE_LIBRARY_DIRS}
  PATH_SUFFIXES lib)

if(ACE_INCLUDE_DIR AND EXISTS ${ACE_INCLUDE_DIR}/ace/Version.h)
  file(STRINGS ${ACE_INCLUDE_DIR}/ace/Version.h ACE_VERSION_LINE
       REGEX "^#define ACE_VERSION \"[0-9.]+\"")
  if(ACE_VERSION_LINE MATCHES "\"([0-9.]+)\"")
    set(ACE_VERSION ${CMAKE_MATCH_1})
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ACE
  REQUIRED_VARS ACE_LIBRARY ACE_INCLUDE_DIR
  VERSION_VAR ACE_VERSION)
mark_as_advanced(ACE_INCLUDE_DIR ACE_LIBRARY)

if(ACE_FOUND AND NOT TARGET ACE::ACE)
  add_library(ACE::ACE UNKNOWN IMPORTED)
  set_target_properties(ACE::ACE PROPERTIES
    IMPORTED_LOCATION ${ACE_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ACE_INCLUDE_DIR})
endif()
