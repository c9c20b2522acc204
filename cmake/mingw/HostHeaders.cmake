# host_headers(TARGET FOLDER): an imported TARGET for the headers in /usr/include/FOLDER, without
# those that stand beside them, which are of another system.
function(host_headers target folder)
  set(include ${CMAKE_BINARY_DIR}/host-headers)
  file(MAKE_DIRECTORY ${include})
  file(CREATE_LINK /usr/include/${folder} ${include}/${folder} SYMBOLIC)
  add_library(${target} INTERFACE IMPORTED)
  target_include_directories(${target} SYSTEM INTERFACE ${include})
endfunction()
