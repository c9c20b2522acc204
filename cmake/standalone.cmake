# `tolvex_standalone`: the shared library once more, to be copied to other machines, as the Python
# package is. It holds what it needs of the compiler's libraries, zlib and libdeflate, none of which
# it exports, so that it needs the system's C library alone, of this machine's version or a newer one.
# Where a library has no archive it stays a shared one.
find_library(TOLVEX_ZLIB_ARCHIVE libz.a)
find_library(TOLVEX_LIBDEFLATE_ARCHIVE libdeflate.a)
mark_as_advanced(TOLVEX_ZLIB_ARCHIVE TOLVEX_LIBDEFLATE_ARCHIVE)
set(STANDALONE_LIBRARIES Threads::Threads)
if(TOLVEX_ZLIB_ARCHIVE)
  list(PREPEND STANDALONE_LIBRARIES ${TOLVEX_ZLIB_ARCHIVE})
else()
  list(PREPEND STANDALONE_LIBRARIES ZLIB::ZLIB)
endif()
if(TOLVEX_HAS_LIBDEFLATE AND TOLVEX_LIBDEFLATE_ARCHIVE)
  list(PREPEND STANDALONE_LIBRARIES ${TOLVEX_LIBDEFLATE_ARCHIVE})
elseif(TOLVEX_HAS_LIBDEFLATE)
  list(PREPEND STANDALONE_LIBRARIES ${TOLVEX_LIBDEFLATE_LIBRARY})
endif()

add_library(tolvex_standalone SHARED EXCLUDE_FROM_ALL $<TARGET_OBJECTS:tolvex_objects>)
set(STANDALONE_DIR ${PROJECT_BINARY_DIR}/standalone)
set_target_properties(tolvex_standalone PROPERTIES OUTPUT_NAME tolvex
  LIBRARY_OUTPUT_DIRECTORY ${STANDALONE_DIR} RUNTIME_OUTPUT_DIRECTORY ${STANDALONE_DIR}
  ARCHIVE_OUTPUT_DIRECTORY ${STANDALONE_DIR})
target_link_libraries(tolvex_standalone PRIVATE ${STANDALONE_LIBRARIES})
if(WIN32)
  target_link_options(tolvex_standalone PRIVATE -static -s)
else()
  set_target_properties(tolvex_standalone PROPERTIES LINK_DEPENDS ${TOLVEX_EXPORT_MAP})
  target_link_options(tolvex_standalone PRIVATE -static-libstdc++ -static-libgcc -s
    LINKER:--exclude-libs,ALL LINKER:--version-script=${TOLVEX_EXPORT_MAP})
endif()
