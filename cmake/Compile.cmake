# Compiler and linker settings of the whole project.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# The library names have no version, and some are common, so they are installed in folders that no loader searches by
# default. The stand-alone host's four are in a sub-folder, host: a program that names the folder of libZnISCSI.so
# only gets none of them. No library has a RUNPATH: programs name the folders.
set(library_folder ${CMAKE_INSTALL_LIBDIR}/zniscsi)
set(host_folder ${library_folder}/host)

# The build folder has the layout of the installed tree, so that both use the same RUNPATH. If CMake had to rewrite
# it, it would make room with colons, and an empty element means the current folder.
file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/zniscsi)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
get_filename_component(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin/${to_libraries} ABSOLUTE)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON) # a build folder can be moved, for example into a virtual machine

option(ZN_WERROR "Make every warning an error" OFF)
set(ZN_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")

# Builds in different folders give the same files. Debug builds keep the folder names, for the debugger.
if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
  add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
endif()
add_link_options(-Wl,--build-id)

find_package(Threads REQUIRED)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wold-style-cast -Wcast-qual -Wundef -Woverloaded-virtual)
if(ZN_WERROR)
  add_compile_options(-Werror)
endif()

if(ZN_SANITIZE)
  # vptr needs type information of classes that the libraries do not export.
  # With sanitizers, GCC reports false -Wmaybe-uninitialized in the standard library's headers.
  set(sanitize -fsanitize=${ZN_SANITIZE} -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(ZN_SANITIZE MATCHES undefined)
    list(APPEND sanitize -fno-sanitize=vptr -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${sanitize})
  add_link_options(${sanitize})
else()
  # Finds undefined symbols at link time, not when a program loads the library. (Sanitized libraries take some from
  # the program.)
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,-z,defs>)
endif()
if(ZN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link) # the fuzzers need the coverage of the libraries
endif()
include(cmake/Harden.cmake)

# A shared library, installed in `folder`. The version script `exports` lists its exports.
function(zn_library name exports folder component)
  set(script ${CMAKE_CURRENT_SOURCE_DIR}/${exports})
  add_library(${name} SHARED ${ARGN})
  add_library(zniscsi::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_options(${name} PRIVATE -Wl,--version-script=${script})
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${script})
  install(TARGETS ${name} EXPORT zniscsi LIBRARY DESTINATION ${folder} COMPONENT ${component})
endfunction()

# A library of the stand-alone host.
function(zn_host_library name)
  zn_library(${name} ${name}.map ${host_folder} host ${ARGN})
  set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/host)
endfunction()

# A GoogleTest program. Each case becomes a test of CTest.
function(zn_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE GTest::gtest_main)
  # Half the time of -O3; what is tested is compiled as shipped.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
