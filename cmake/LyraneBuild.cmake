# Flags and helpers that every folder uses.

option(LYRANE_WERROR "Treat warnings as errors" ON)
option(LYRANE_BENCH "Build the benchmarks" OFF)
option(LYRANE_COVERAGE "Count what runs, for tests/coverage" OFF)
set(LYRANE_SANITIZE "" CACHE STRING "Sanitizers to build with, for instance address,undefined")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
include(CheckPIESupported)
check_pie_supported()

add_compile_definitions(_GNU_SOURCE)
add_compile_options(-Wall -Wextra -Wshadow $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> -Wcast-qual -Wundef
                    -fstack-protector-strong -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 warns of overlaps inside std::string at -O3 that cannot be (its bug 105651).
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(LYRANE_WERROR)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wthread-safety)
endif()
if(LYRANE_SANITIZE)
  add_compile_options(-fsanitize=${LYRANE_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LYRANE_SANITIZE})
else()
  add_compile_options($<$<CONFIG:Release>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
endif()
add_link_options(-Wl,-z,relro -Wl,-z,now)
if(LYRANE_COVERAGE)
  add_library(lyrane_coverage_exit STATIC "${CMAKE_CURRENT_LIST_DIR}/coverage_exit.c")
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage -Wl,--wrap=_exit,-u,__wrap__exit)
  link_libraries($<BUILD_INTERFACE:lyrane_coverage_exit>)
endif()

# lyrane_library(NAME SOURCES ... LINKS ... [PRIVATE_LINKS ...])
#
# One static library a folder. Its headers are seen by those who link it, and by nobody else: the
# build graph is the picture of the layers, and an include across it does not compile.
function(lyrane_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE ${ARG_PRIVATE_LINKS})
endfunction()

# lyrane_test(NAME SOURCES ... LINKS ... [TIMEOUT seconds])
#
# One GoogleTest program, registered with CTest as one test. Those that may take long begin first, so
# that none is left running alone at the end.
function(lyrane_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 200)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} GTest::gtest GTest::gtest_main)
  if(TARGET lyrane_test_headers)
    target_precompile_headers(${name} REUSE_FROM lyrane_test_headers)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} COST ${ARG_TIMEOUT})
endfunction()

# lyrane_compile_quickly()
#
# For folders whose programs need no speed: compiling them takes most of the time of a build, with
# sanitizers four times as much when it is optimised.
macro(lyrane_compile_quickly)
  string(REPLACE "-O3" "-O1" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
  string(REPLACE "-O1" "-O0" CMAKE_CXX_FLAGS_DEBUG "${CMAKE_CXX_FLAGS_DEBUG}")
endmacro()
