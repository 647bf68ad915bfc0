# Debian's spdlog headers over the external fmt, for the MinGW-w64 toolchain. spdlog is used
# as a compiled, shared library whose one copy lives in the SDK's dax_types.dll
# (SPDLOG_DLL_SOURCE is compiled into it with spdlog_EXPORTS), so that every module shares one
# logger registry; programs get spdlog by linking the SDK.
include(CMakeFindDependencyMacro)
find_dependency(fmt)
include(${CMAKE_CURRENT_LIST_DIR}/../stage.cmake)
qor_mingw_stage_headers(_qor_spdlog_include spdlog)
if(NOT TARGET spdlog::spdlog)
  add_library(spdlog::spdlog INTERFACE IMPORTED)
  set_target_properties(spdlog::spdlog PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${_qor_spdlog_include}
    INTERFACE_COMPILE_DEFINITIONS "SPDLOG_FMT_EXTERNAL=1;SPDLOG_COMPILED_LIB=1;SPDLOG_SHARED_LIB=1"
    INTERFACE_LINK_LIBRARIES fmt::fmt)
endif()
set(SPDLOG_DLL_SOURCE ${CMAKE_CURRENT_LIST_DIR}/spdlog_compiled.cpp)
