# The target rtls::httplib (Debian: libcpp-httplib-dev). With the definitions that Debian builds it with: its
# classes look different without.
include_guard(GLOBAL)
rtls_import(httplib httplib.h cpp-httplib)
set_property(TARGET rtls::httplib PROPERTY INTERFACE_COMPILE_DEFINITIONS
  CPPHTTPLIB_OPENSSL_SUPPORT CPPHTTPLIB_ZLIB_SUPPORT CPPHTTPLIB_BROTLI_SUPPORT)
