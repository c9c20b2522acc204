# Debian packages, made by cpack: the library, named after its soname, what it takes to build with
# it, and the program.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR tolvex)
set(CPACK_PACKAGE_CONTACT "tolvex maintainers <maintainers@tolvex.invalid>" CACHE STRING
  "Name and address that the packages state")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENTS_ALL runtime development)

set(LIBRARY_PACKAGE libtolvex${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${LIBRARY_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "records and reads ASAM MDF 4 measurement files
Library for signals, CAN and CAN FD bus logs in ASAM MDF 4 files: records,
reads, checks and recovers them.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtolvex-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${LIBRARY_PACKAGE} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "records and reads ASAM MDF 4 measurement files (headers)
What it takes to build programs with libtolvex, through CMake or pkg-config.")

if(TOLVEX_BUILD_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL program)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME tolvex)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION science)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${LIBRARY_PACKAGE} (>= ${PROJECT_VERSION})")
  set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "shows, converts and recovers ASAM MDF 4 measurement files
Program that shows what such files hold, prints CAN frames, exports signals,
records CAN logs, and checks and recovers files.")
endif()

# Every package has its documents in a folder of its own: licence, changes, and Debian's changes,
# which only point to those.
set(CHANGES ${PROJECT_BINARY_DIR}/debian)
string(TIMESTAMP today "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(CONFIGURE OUTPUT ${CHANGES}/in/changelog.Debian @ONLY CONTENT
  "tolvex (@PROJECT_VERSION@-@CPACK_DEBIAN_PACKAGE_RELEASE@) unstable; urgency=medium

  * Made from the sources; what changed there is in changelog.gz.

 -- @CPACK_PACKAGE_CONTACT@  @today@
")
add_custom_command(OUTPUT ${CHANGES}/made
  COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${CHANGES}/changelog
  COMMAND ${CMAKE_COMMAND} -E copy ${CHANGES}/in/changelog.Debian ${CHANGES}
  COMMAND gzip -9nf ${CHANGES}/changelog ${CHANGES}/changelog.Debian
  COMMAND ${CMAKE_COMMAND} -E touch ${CHANGES}/made
  DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${CHANGES}/in/changelog.Debian VERBATIM)
add_custom_target(tolvex_debian_changes ALL DEPENDS ${CHANGES}/made)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright DESTINATION ${documents}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES ${CHANGES}/changelog.gz ${CHANGES}/changelog.Debian.gz DESTINATION ${documents}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
