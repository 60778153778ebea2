# The targets rtls::zmq and rtls::czmq. By CMake's own search rather than pkg-config: what that adds (the include
# folders of the libraries' own dependencies) changes from one configuration run to the next, and with it
# every compile line.
function(rtls_import name header library)
  string(TOUPPER ${name} prefix)
  find_path(${prefix}_INCLUDE_DIR ${header} REQUIRED)
  find_library(${prefix}_LIBRARY ${library} REQUIRED)
  mark_as_advanced(${prefix}_INCLUDE_DIR ${prefix}_LIBRARY)
  add_library(rtls::${name} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(rtls::${name} PROPERTIES IMPORTED_LOCATION ${${prefix}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${${prefix}_INCLUDE_DIR})
endfunction()

rtls_import(zmq zmq.h zmq)
rtls_import(czmq czmq.h czmq)
set_property(TARGET rtls::czmq PROPERTY INTERFACE_LINK_LIBRARIES rtls::zmq)
