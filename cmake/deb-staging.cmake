# SPDX-License-Identifier: Apache-2.0
# Run by cpack on the staging tree (one folder per package) before the Debian packages are made:
# what Debian asks of a package's files that the install tree need not do. Manual pages are
# compressed (gzip -9n, no time stamp) and the static library loses its debugging symbols.
file(GLOB_RECURSE files LIST_DIRECTORIES false "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(page IN LISTS files)
  if(page MATCHES "/share/man/man[^/]*/[^/]*$" AND NOT page MATCHES "\\.gz$")
    execute_process(COMMAND gzip -9nf ${page} RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip ${page} failed: ${status}")
    endif()
  endif()
endforeach()
list(FILTER files INCLUDE REGEX "\\.a$")
foreach(archive IN LISTS files)
  execute_process(COMMAND ${CPACK_SCSITOOL_STRIP} --strip-debug ${archive} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "strip ${archive} failed: ${status}")
  endif()
endforeach()
