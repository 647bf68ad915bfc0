# Debian's fmt headers in header-only mode, for the MinGW-w64 toolchain.
include(${CMAKE_CURRENT_LIST_DIR}/../stage.cmake)
qor_mingw_stage_headers(_qor_fmt_include fmt)
if(NOT TARGET fmt::fmt)
  add_library(fmt::fmt INTERFACE IMPORTED)
  set_target_properties(fmt::fmt PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${_qor_fmt_include}
    INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1)
endif()
