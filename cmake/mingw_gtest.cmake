# GoogleTest for the Windows build: Debian ships no MinGW build of it, so it is compiled
# from Debian's source package with the same toolchain.
set(QOR_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources for cross builds")
if(NOT EXISTS ${QOR_GTEST_SOURCE}/CMakeLists.txt)
  message(FATAL_ERROR "${QOR_GTEST_SOURCE} is missing: run scripts/install-deps")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${QOR_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
foreach(lib gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${lib})
    add_library(GTest::${lib} ALIAS ${lib})
  endif()
endforeach()
