# What `cmake --install` lays down: headers, library, CMake package, pkg-config file, documents.
# Debian's folder of libraries under every prefix, so that each build can be packaged as it is.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND PROJECT_IS_TOP_LEVEL AND EXISTS /etc/debian_version
    AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Folder of libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TOLVEX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tolvex)
set(TOLVEX_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Components: what programs need to run, what they are built with, and the program.
install(TARGETS tolvex EXPORT tolvex-targets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tolvex DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN *.h)

# On Windows a program looks for libraries beside itself: those of the compiler and zlib are laid
# there too, for machines that have neither.
if(MINGW AND BUILD_SHARED_LIBS)
  set(RUNTIME_FOLDERS)
  foreach(library libstdc++-6.dll libwinpthread-1.dll zlib1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library}
      OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    file(REAL_PATH ${file} file)
    cmake_path(GET file PARENT_PATH folder)
    list(APPEND RUNTIME_FOLDERS ${folder})
  endforeach()
  install(CODE "
    set(CMAKE_GET_RUNTIME_DEPENDENCIES_PLATFORM windows+pe)
    set(CMAKE_GET_RUNTIME_DEPENDENCIES_TOOL objdump)
    set(CMAKE_GET_RUNTIME_DEPENDENCIES_COMMAND ${CMAKE_OBJDUMP})
    file(GET_RUNTIME_DEPENDENCIES LIBRARIES $<TARGET_FILE:tolvex> DIRECTORIES ${RUNTIME_FOLDERS}
      RESOLVED_DEPENDENCIES_VAR libraries UNRESOLVED_DEPENDENCIES_VAR those_of_windows)
    file(INSTALL \${libraries} DESTINATION \${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR})"
    COMPONENT runtime)
endif()

install(EXPORT tolvex-targets NAMESPACE tolvex:: DESTINATION ${TOLVEX_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tolvex-config.cmake.in
  ${PROJECT_BINARY_DIR}/tolvex-config.cmake INSTALL_DESTINATION ${TOLVEX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tolvex-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tolvex-config.cmake
  ${PROJECT_BINARY_DIR}/tolvex-config-version.cmake
  DESTINATION ${TOLVEX_CMAKE_DIR} COMPONENT development)

# Prefix and library folder are stated relative to the file itself, so an installed tree can move.
file(RELATIVE_PATH TOLVEX_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${TOLVEX_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
# A static library brings what it stands on.
if(BUILD_SHARED_LIBS)
  set(TOLVEX_PC_STATIC "")
else()
  set(TOLVEX_PC_STATIC " -DTOLVEX_STATIC")
endif()
set(TOLVEX_PC_PRIVATE -lz ${CMAKE_THREAD_LIBS_INIT})
if(TOLVEX_HAS_LIBDEFLATE)
  list(APPEND TOLVEX_PC_PRIVATE -ldeflate)
endif()
foreach(library IN LISTS CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
  if(NOT library IN_LIST CMAKE_C_IMPLICIT_LINK_LIBRARIES)
    list(APPEND TOLVEX_PC_PRIVATE -l${library})
  endif()
endforeach()
list(JOIN TOLVEX_PC_PRIVATE " " TOLVEX_PC_PRIVATE)
configure_file(${PROJECT_SOURCE_DIR}/cmake/tolvex.pc.in ${PROJECT_BINARY_DIR}/tolvex.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tolvex.pc DESTINATION ${TOLVEX_PKGCONFIG_DIR}
  COMPONENT development)

install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)

if(PROJECT_IS_TOP_LEVEL AND BUILD_SHARED_LIBS AND NOT CMAKE_CROSSCOMPILING)
  include(cmake/packages.cmake)
endif()
