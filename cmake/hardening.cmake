# Makes a memory error hard to use: random addresses, read-only relocations, guarded stacks, checked
# buffer calls, no code in data. scripts/check_hardening looks whether a program has it all.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong)
check_cxx_compiler_flag("-Werror -fstack-clash-protection" LB_HAS_STACK_CLASH_PROTECTION)
if(LB_HAS_STACK_CLASH_PROTECTION)  # not on every processor
  add_compile_options(-fstack-clash-protection)
endif()

# Unoptimised code cannot be checked so, and a sanitizer checks the same calls itself.
if(NOT LB_SANITIZE AND NOT LB_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
endif()
add_compile_definitions(_GLIBCXX_ASSERTIONS)

add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
