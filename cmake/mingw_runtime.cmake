# MinGW's C++ runtime DLLs: copied beside the programs in the build tree (Windows, and Wine,
# look for DLLs in the program's folder first) and installed beside the SDK's DLLs.
set(QOR_MINGW_RUNTIME_DLLS)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
    OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
    # libwinpthread lives in the sysroot, which the compiler does not list.
    find_file(path_${dll} ${dll} PATHS /usr/${QOR_MINGW_TRIPLET}/lib NO_DEFAULT_PATH)
    set(path ${path_${dll}})
  endif()
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "MinGW runtime ${dll} not found")
  endif()
  list(APPEND QOR_MINGW_RUNTIME_DLLS ${path})
  file(COPY ${path} DESTINATION ${QOR_OUTPUT_DIR})
endforeach()
install(FILES ${QOR_MINGW_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
