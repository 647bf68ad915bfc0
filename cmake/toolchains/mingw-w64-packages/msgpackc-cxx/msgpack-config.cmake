# Debian's msgpack-cxx headers (the tests' independent decoder) for the MinGW-w64 toolchain.
include(${CMAKE_CURRENT_LIST_DIR}/../stage.cmake)
qor_mingw_stage_headers(_qor_msgpack_include msgpack msgpack.hpp)
if(NOT TARGET msgpackc-cxx)
  add_library(msgpackc-cxx INTERFACE IMPORTED)
  set_target_properties(msgpackc-cxx PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${_qor_msgpack_include})
endif()
