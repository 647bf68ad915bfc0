file(STRINGS /usr/include/spdlog/version.h _v REGEX "^#define SPDLOG_VER_[A-Z]+ [0-9]+")
string(REGEX REPLACE ".*MAJOR ([0-9]+).*MINOR ([0-9]+).*PATCH ([0-9]+).*" "\\1.\\2.\\3"
  PACKAGE_VERSION "${_v}")
include(${CMAKE_CURRENT_LIST_DIR}/../version-check.cmake)
