#pragma once

#include <string>
#include <vector>

namespace dax::plugins {

/// Folder of the running program's executable, without a trailing separator.
std::string get_executable_folder();

/// Library names in `folder` whose base name begins with `prefix` and ends with `suffix`,
/// given without the platform's library prefix and extension, sorted byte-wise.
std::vector<std::string> get_plugins(const std::string& folder, const std::string& prefix,
                                     const std::string& suffix);

/// File-name prefix of shared libraries on this platform ("lib"; empty on Windows).
std::string get_lib_prefix();

/// File-name extension of shared libraries on this platform, with its dot (".so", ".dll").
std::string get_lib_ext();

}  // namespace dax::plugins
