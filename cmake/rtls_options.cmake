# Compile and link options that every target of this project shares.
include(GNUInstallDirs)
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported()

option(RTLS_WERROR "Treat warnings as errors" OFF)
option(RTLS_TEST_PCH "Compile what all tests include once (the tests' own include lines then prove nothing)" OFF)
option(RTLS_UNITY "Compile each library as one source (its sources' own include lines then prove nothing)" OFF)
option(RTLS_UNITY_TOOLS "The same for the libraries that the daemon does not use" OFF)
option(RTLS_TESTS_OF_THREADS "Of the test programs only those that start threads, for the thread sanitizer" OFF)
option(RTLS_COVERAGE "Count which lines and branches run (gcc)" OFF)
set(RTLS_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=")

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

find_program(CCACHE ccache)
if(CCACHE AND PROJECT_IS_TOP_LEVEL)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(rtls_options INTERFACE)
target_compile_options(rtls_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
  $<$<BOOL:${RTLS_WERROR}>:-Werror>
  $<$<CONFIG:Debug>:-D_GLIBCXX_ASSERTIONS>)
target_compile_definitions(rtls_options INTERFACE _GNU_SOURCE)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(rtls_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

# A daemon that strangers speak to: a fault that got past everything else must not become theirs to use.
# Not with sanitizers, which do more, and which a fortified libc would hide faults from.
if(NOT RTLS_SANITIZE)
  # glibc checks nothing without optimization, and warns of it in every file: Debug, and a whole project that
  # has no build type.
  set(optimized "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
  target_compile_options(rtls_options INTERFACE
    -fstack-protector-strong "$<${optimized}:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
  foreach(flag -fcf-protection=full -fstack-clash-protection)
    string(MAKE_C_IDENTIFIER "RTLS_HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
      target_compile_options(rtls_options INTERFACE ${flag})
    endif()
  endforeach()
  target_link_options(rtls_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(RTLS_SANITIZE)
  target_compile_options(rtls_options INTERFACE
    -fsanitize=${RTLS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(rtls_options INTERFACE -fsanitize=${RTLS_SANITIZE})
  find_program(RTLS_LLD ld.lld)
  if(RTLS_LLD AND CMAKE_CXX_COMPILER_ID MATCHES Clang) # a hundred large programs: five times as fast
    target_link_options(rtls_options INTERFACE -fuse-ld=lld)
  endif()
endif()
if(RTLS_FUZZERS AND RTLS_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES Clang)
  # So that the fuzzer sees which branches an input takes; only the fuzz targets link its main.
  target_compile_options(rtls_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(RTLS_COVERAGE)
  # Counts are exact with several threads, and paths hold wherever a program runs.
  target_compile_options(rtls_options INTERFACE --coverage -fprofile-update=atomic -fprofile-abs-path)
  target_link_options(rtls_options INTERFACE --coverage)
endif()

# Test programs are compiled once and run once: optimizing them costs more than it saves.
add_library(rtls_test_options INTERFACE)
target_compile_options(rtls_test_options INTERFACE -O0 -g1 "SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=0"
  $<$<BOOL:${RTLS_COVERAGE}>:-fno-test-coverage> $<$<BOOL:${RTLS_COVERAGE}>:-fno-profile-arcs>)

find_program(RTLS_LLD ld.lld)
if(RTLS_LLD AND NOT RTLS_SANITIZE) # a hundred of them
  target_link_options(rtls_test_options INTERFACE -fuse-ld=lld)
endif()

# What nearly every test program includes, for RTLS_TEST_PCH: half of what compiling one costs.
function(rtls_add_test_headers)
  add_executable(rtls_test_headers ${PROJECT_SOURCE_DIR}/cmake/empty_program.cpp)
  target_link_libraries(rtls_test_headers PRIVATE rtls_options rtls_test_options GTest::gtest_main GTest::gmock)
  target_precompile_headers(rtls_test_headers PRIVATE
    <gmock/gmock.h> <gtest/gtest.h> <czmq.h> <functional> <memory> <string> <thread> <vector>)
endfunction()

# One GoogleTest program, named after its file, with the environment in which its tests run.
function(rtls_add_test source environment)
  cmake_path(GET source STEM name)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE rtls_options rtls_test_options ${ARGN} GTest::gtest_main GTest::gmock)
  if(RTLS_TEST_PCH)
    target_precompile_headers(${name} REUSE_FROM rtls_test_headers)
  endif()
  if(TARGET one_thread)
    add_dependencies(${name} one_thread)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ENVIRONMENT "${environment}")
endfunction()

# Preloaded into the test programs that are said to start no thread, so that this stays true.
function(rtls_add_thread_watch)
  add_library(one_thread MODULE ${PROJECT_SOURCE_DIR}/tests/support/one_thread.c)
  set_target_properties(one_thread PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
endfunction()

# rtls_add_tests(<source>... [THREADS <source>...] LIBRARIES <library>...): each source is one program. None without
# RTLS_TESTS. THREADS: those that start threads, the log's apart. To the others the thread sanitizer has nothing to
# say, and RTLS_TESTS_OF_THREADS leaves them out.
function(rtls_add_tests)
  if(NOT RTLS_TESTS)
    return()
  endif()
  cmake_parse_arguments(arg "" "" "LIBRARIES;THREADS" ${ARGN})
  if(RTLS_TEST_PCH AND NOT TARGET rtls_test_headers)
    rtls_add_test_headers()
  endif()
  set(for_threads "TSAN_OPTIONS=ignore_noninstrumented_modules=1:suppressions=${PROJECT_SOURCE_DIR}/cmake/tsan.supp")
  set(for_others "${for_threads}")
  if(NOT RTLS_SANITIZE) # they would see the preloaded library before themselves, and refuse
    if(NOT TARGET one_thread)
      rtls_add_thread_watch()
    endif()
    set(for_others "LD_PRELOAD=${PROJECT_BINARY_DIR}/one_thread.so")
  endif()
  foreach(source IN LISTS arg_THREADS)
    rtls_add_test(${source} "${for_threads}" ${arg_LIBRARIES})
  endforeach()
  if(NOT RTLS_TESTS_OF_THREADS)
    foreach(source IN LISTS arg_UNPARSED_ARGUMENTS)
      rtls_add_test(${source} "${for_others}" ${arg_LIBRARIES})
    endforeach()
  endif()
endfunction()

# A program's main with its command line: a parser of templates, which costs more to optimize than it ever runs.
# What is released is optimized all the same.
function(rtls_command_line source)
  if(RTLS_SANITIZE)
    set_source_files_properties(${source} PROPERTIES COMPILE_OPTIONS -O0)
  endif()
endfunction()

# For RTLS_UNITY: a library whose sources can stand in one. What they all include is then read once.
function(rtls_unite library)
  if(RTLS_UNITY OR (RTLS_UNITY_TOOLS AND CMAKE_CURRENT_SOURCE_DIR MATCHES "/(tools|libs/decode|libs/recording)(/|$)"))
    set_target_properties(${library} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
  endif()
endfunction()
