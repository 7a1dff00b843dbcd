# The hardening options of distributions. An option in the packager's flags takes precedence.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
target_link_options(zniscsi-flags INTERFACE -Wl,-z,now -Wl,-z,relro)

# Adds the options where `condition` holds if the compiler knows them, unless the packager's flags contain `word`.
function(zn_harden word condition)
  string(MAKE_C_IDENTIFIER "ZN_TAKES_${word}" takes)
  check_cxx_compiler_flag("${ARGN}" ${takes})
  if(${takes} AND NOT "${CMAKE_CXX_FLAGS}" MATCHES "${word}")
    target_compile_options(zniscsi-flags INTERFACE "$<${condition}:${ARGN}>")
    set_property(GLOBAL APPEND PROPERTY ZN_HARDENED $<${condition}:${word}>) # read by the test of the built files
  endif()
endfunction()

# Sanitizers replace these checks.
if(NOT ZN_SANITIZE)
  zn_harden(stack-protector 1 -fstack-protector-strong)
  zn_harden(stack-clash-protection 1 -fstack-clash-protection)
  zn_harden(cf-protection 1 -fcf-protection) # x86 only
  # Level 3 needs GCC 12, and any level needs optimisation. Some compilers predefine a level.
  set(fortify 3)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
    set(fortify 2)
  endif()
  set(optimised $<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>)
  zn_harden(_FORTIFY_SOURCE ${optimised} -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${fortify})
endif()
