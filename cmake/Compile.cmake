# How everything here is compiled and linked. All targets link zniscsi-flags: warnings, hardening, sanitizers.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# The library names have no version, and some are common, so they are installed in directories that no loader searches
# by default. The stand-alone host's four are in one below, host: a program that names the directory of libZnISCSI.so
# only gets none of them. No library has a RUNPATH: programs name the directories.
set(library_directory ${CMAKE_INSTALL_LIBDIR}/zniscsi)
set(host_directory ${library_directory}/host)

# The build directory has the layout of the installed tree, so that both use the same RUNPATH. If CMake had to rewrite
# it, it would make room with colons, and an empty element means the current directory.
set(output_directory ${PROJECT_BINARY_DIR})
get_property(several_configurations GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(several_configurations)
  string(APPEND output_directory /$<CONFIG>)
endif()
file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/zniscsi)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${output_directory}/bin)
get_filename_component(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${output_directory}/bin/${to_libraries} ABSOLUTE)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON) # a build directory can be moved, for example into a virtual machine

find_package(Threads REQUIRED)

add_library(zniscsi-flags INTERFACE)
target_compile_options(zniscsi-flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wold-style-cast -Wcast-qual -Wundef -Woverloaded-virtual
  $<$<BOOL:${ZN_WERROR}>:-Werror>
  # Builds in different directories give the same files. The debug information keeps the names, for the debugger.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
target_link_options(zniscsi-flags INTERFACE -Wl,--build-id)

if(ZN_SANITIZE)
  # vptr needs type information of classes that the libraries do not export.
  # With sanitizers, GCC reports false -Wmaybe-uninitialized in the standard library's headers.
  set(sanitize -fsanitize=${ZN_SANITIZE} -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(ZN_SANITIZE MATCHES undefined)
    list(APPEND sanitize -fno-sanitize=vptr -fno-sanitize-recover=undefined)
  endif()
  target_compile_options(zniscsi-flags INTERFACE ${sanitize})
  target_link_options(zniscsi-flags INTERFACE ${sanitize})
else()
  # Finds undefined symbols at link time, not when a program loads the library. (Sanitized libraries take some from
  # the program.)
  target_link_options(zniscsi-flags INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,-z,defs>)
endif()
if(ZN_FUZZ)
  target_compile_options(zniscsi-flags INTERFACE -fsanitize=fuzzer-no-link) # of the libraries, too: the coverage
endif()

# A shared library, installed in `directory`. The version script `exports` lists its exports.
function(zn_library name exports directory)
  set(script ${CMAKE_CURRENT_SOURCE_DIR}/${exports})
  add_library(${name} SHARED ${ARGN})
  add_library(zniscsi::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PRIVATE zniscsi-flags)
  target_link_options(${name} PRIVATE -Wl,--version-script=${script})
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${script})
  install(TARGETS ${name} EXPORT zniscsi LIBRARY DESTINATION ${directory})
endfunction()

# A library of the stand-alone host.
function(zn_host_library name)
  zn_library(${name} ${name}.map ${host_directory} ${ARGN})
  set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/host)
endfunction()

# A GoogleTest program. Each case becomes a test of CTest.
function(zn_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE GTest::gtest_main zniscsi-flags)
  # Half the time of -O3; what is tested is compiled as shipped.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
