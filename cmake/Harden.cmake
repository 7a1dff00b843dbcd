# The hardening options of distributions. An option in the packager's flags takes precedence.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
add_link_options(-Wl,-z,now -Wl,-z,relro)

# Adds the options if the compiler knows them, unless the packager's flags contain `word`.
function(zn_harden word)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" type)
  string(MAKE_C_IDENTIFIER "ZN_TAKES_${word}" takes)
  check_cxx_compiler_flag("${ARGN}" ${takes})
  if(${takes} AND NOT "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}}" MATCHES "${word}")
    add_compile_options(${ARGN})
    set_property(GLOBAL APPEND PROPERTY ZN_HARDENED ${word}) # read by the test of the built files
  endif()
endfunction()

# Sanitizers replace these checks.
if(NOT ZN_SANITIZE)
  zn_harden(stack-protector -fstack-protector-strong)
  zn_harden(stack-clash-protection -fstack-clash-protection)
  zn_harden(cf-protection -fcf-protection) # x86 only
  # Level 3 needs GCC 12, and any level needs optimisation. Some compilers predefine a level.
  set(fortify 3)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
    set(fortify 2)
  endif()
  if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
    zn_harden(_FORTIFY_SOURCE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${fortify})
  endif()
endif()
