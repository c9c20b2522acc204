# What everything here is built with, since its inputs may be hostile: stack protectors, checked
# string and memory functions, position-independent programs, and tables that are resolved at the
# start and then read-only.
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

add_compile_options(-fstack-protector-strong)
# The checked functions need the optimizer, and would hide calls from the sanitizers.
add_compile_options(
  "$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
if(WIN32)
  add_link_options(-fstack-protector-strong)  # which a library of the compiler's does
else()
  add_link_options(LINKER:-z,relro,-z,now)
endif()
