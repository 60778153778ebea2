# rtls_add_layer(<folder> SOURCES <file>... DEPENDS <library>... [PRIVATE <library>...] [HEADERS <file>...])
#
# The library rtls_<folder>: one layer of the daemon, the folder src/<folder>. It sees only what it DEPENDS on:
# the layers before it, and the libraries that its headers need (PRIVATE: its sources alone).
#
# Each layer has an include root of its own, in which there is nothing but a link to its folder. So
# "<folder>/<file>.h" is found by those who depend on the layer, and an include that climbs does not compile.
# With HEADERS the root has these headers of the current folder instead. Without SOURCES it is headers only.
#
# With the tests a program is built that links the whole layer and nothing but what it depends on: a call
# that climbs does not link.
function(rtls_add_layer folder)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;PRIVATE;HEADERS")
  set(root ${PROJECT_BINARY_DIR}/src/layers/${folder})
  file(MAKE_DIRECTORY ${root})
  if(arg_HEADERS)
    foreach(header IN LISTS arg_HEADERS)
      file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${root}/${header} SYMBOLIC)
    endforeach()
  else()
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${folder} SYMBOLIC)
  endif()

  set(layer rtls_${folder})
  if(NOT arg_SOURCES)
    add_library(${layer} INTERFACE)
    target_include_directories(${layer} INTERFACE ${root})
    target_link_libraries(${layer} INTERFACE ${arg_DEPENDS})
    return()
  endif()
  add_library(${layer} STATIC ${arg_SOURCES})
  target_include_directories(${layer} PUBLIC ${root})
  target_link_libraries(${layer} PUBLIC ${arg_DEPENDS} PRIVATE rtls_options ${arg_PRIVATE})
  rtls_unite(${layer})
  rtls_links_alone(${layer})
endfunction()

# rtls_links_alone(<library>): with the tests, a program that links all of the library and nothing but what it depends
# on.
function(rtls_links_alone library)
  if(RTLS_TESTS AND NOT RTLS_SANITIZE) # once is enough
    add_executable(${library}_links_alone ${PROJECT_SOURCE_DIR}/cmake/empty_program.cpp)
    target_link_libraries(${library}_links_alone PRIVATE rtls_options $<LINK_LIBRARY:WHOLE_ARCHIVE,${library}>)
  endif()
endfunction()

# rtls_add_headers(<library> <folder>/<header>...): these headers of src/, for those who need nothing that is compiled.
function(rtls_add_headers library)
  set(root ${PROJECT_BINARY_DIR}/src/headers/${library})
  add_library(${library} INTERFACE)
  target_include_directories(${library} INTERFACE ${root})
  foreach(header IN LISTS ARGN)
    cmake_path(GET header PARENT_PATH folder)
    file(MAKE_DIRECTORY ${root}/${folder})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${header} ${root}/${header} SYMBOLIC)
  endforeach()
endfunction()
