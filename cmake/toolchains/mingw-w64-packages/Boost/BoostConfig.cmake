# Debian's Boost headers (Asio, Beast) for the MinGW-w64 toolchain; no compiled Boost
# library is used on Windows.
include(${CMAKE_CURRENT_LIST_DIR}/../stage.cmake)
qor_mingw_stage_headers(_qor_boost_include boost)
if(NOT TARGET Boost::headers)
  add_library(Boost::headers INTERFACE IMPORTED)
  set_target_properties(Boost::headers PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${_qor_boost_include}
    # Asio needs Winsock; _WIN32_WINNT 0x0A00 (Windows 10) is the oldest system served.
    INTERFACE_COMPILE_DEFINITIONS "_WIN32_WINNT=0x0A00;BOOST_ALL_NO_LIB"
    INTERFACE_LINK_LIBRARIES "ws2_32;mswsock")
endif()
set(Boost_INCLUDE_DIRS ${_qor_boost_include})
set(Boost_FOUND TRUE)
