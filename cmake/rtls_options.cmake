# Compile and link options that every target of this project shares.
add_library(rtls_options INTERFACE)
target_compile_options(rtls_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
  $<$<BOOL:${RTLS_WERROR}>:-Werror>
  $<$<CONFIG:Debug>:-D_GLIBCXX_ASSERTIONS>)
target_compile_definitions(rtls_options INTERFACE _GNU_SOURCE)
if(RTLS_SANITIZE)
  target_compile_options(rtls_options INTERFACE
    -fsanitize=${RTLS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(rtls_options INTERFACE -fsanitize=${RTLS_SANITIZE})
endif()
if(RTLS_FUZZERS)
  # So that the fuzzer sees which branches an input takes; only the fuzz targets link its main.
  target_compile_options(rtls_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Test programs are compiled once and run once: optimizing them costs more than it saves.
add_library(rtls_test_options INTERFACE)
target_compile_options(rtls_test_options INTERFACE -O0 -g1)

# rtls_add_tests(<source>... LIBRARIES <library>...): each source is one GoogleTest program
# named after its file.
function(rtls_add_tests)
  cmake_parse_arguments(arg "" "" "LIBRARIES" ${ARGN})
  foreach(source IN LISTS arg_UNPARSED_ARGUMENTS)
    cmake_path(GET source STEM name)
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE rtls_options rtls_test_options ${arg_LIBRARIES} GTest::gtest_main GTest::gmock)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES
      TIMEOUT 300
      ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/tsan.supp")
  endforeach()
endfunction()
