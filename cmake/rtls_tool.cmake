# What the programs below tools/ have in common.

# rtls_add_tool_library(<library> <source>...): what stands in the current folder of tools/. As with the layers of the
# daemon, it has an include root with nothing but a link to the folder: "<folder>/<file>.h" is found by those who link
# the library, and by nobody else.
function(rtls_add_tool_library library)
  cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)
  set(root ${PROJECT_BINARY_DIR}/tools/includes/${folder})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${folder} SYMBOLIC)
  add_library(${library} STATIC ${ARGN})
  target_include_directories(${library} PUBLIC ${root})
  target_link_libraries(${library} PRIVATE rtls_options)
  rtls_unite(${library})
endfunction()

# rtls_add_tool(<name> LIBRARIES <library>... [COMPLETION <argument>]): the program of the current folder's main.cpp.
# COMPLETION: behind which the program takes the name of a shell, and prints what that loads; installed with it.
function(rtls_add_tool name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COMPLETION" "LIBRARIES")
  add_executable(${name} main.cpp)
  rtls_command_line(main.cpp)
  target_link_libraries(${name} PRIVATE rtls_options ${arg_LIBRARIES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
  install(TARGETS ${name} DESTINATION ${CMAKE_INSTALL_BINDIR})
  if(NOT arg_COMPLETION)
    return()
  endif()
  foreach(shell bash zsh)
    add_custom_command(OUTPUT completion.${shell} DEPENDS ${name}
      COMMAND ${name} ${arg_COMPLETION} ${shell} >completion.${shell})
  endforeach()
  add_custom_target(${name}_completion ALL DEPENDS completion.bash completion.zsh)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${name})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/completion.zsh
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions RENAME _${name})
endfunction()
