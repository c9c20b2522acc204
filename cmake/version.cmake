# The public header states the version that the project has.
file(STRINGS ${PROJECT_SOURCE_DIR}/include/tolvex/MdfVersion.h TOLVEX_STATED REGEX "^#define TOLVEX_VERSION")
string(REGEX MATCHALL "[0-9]+[.0-9]*" TOLVEX_STATED "${TOLVEX_STATED}")
set(TOLVEX_EXPECTED
  ${PROJECT_VERSION_MAJOR} ${PROJECT_VERSION_MINOR} ${PROJECT_VERSION_PATCH} ${PROJECT_VERSION})
if(NOT TOLVEX_STATED STREQUAL TOLVEX_EXPECTED)
  message(FATAL_ERROR
    "include/tolvex/MdfVersion.h states ${TOLVEX_STATED}, the project ${TOLVEX_EXPECTED}")
endif()
set_property(DIRECTORY APPEND PROPERTY
  CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/tolvex/MdfVersion.h)
