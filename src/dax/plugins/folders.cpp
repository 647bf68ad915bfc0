#include <dax/plugins/folders.hpp>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace dax::plugins {

namespace fs = std::filesystem;

std::vector<std::string> get_plugins(const std::string& folder, const std::string& prefix,
                                     const std::string& suffix) {
    const std::string lib_prefix = get_lib_prefix();
    const std::string lib_ext = get_lib_ext();
    const std::string head = lib_prefix + prefix;
    const std::string tail = suffix + lib_ext;

    std::vector<std::string> names;
    std::error_code ec;
    fs::directory_iterator it(folder, ec);
    if (ec) return names;  // a missing or unreadable folder simply holds no plug-ins
    for (const fs::directory_entry& entry : it) {
        std::error_code type_ec;
        if (!entry.is_regular_file(type_ec)) continue;  // follows symlinks
        const std::string file = entry.path().filename().string();
        // The prefix and suffix must not overlap, or "qor_dk_cpp" would pass for "qor_sdk_cpp".
        if (file.size() < head.size() + tail.size()) continue;
        if (file.compare(0, head.size(), head) != 0) continue;
        if (file.compare(file.size() - tail.size(), tail.size(), tail) != 0) continue;
        names.push_back(
            file.substr(lib_prefix.size(), file.size() - lib_prefix.size() - lib_ext.size()));
    }
    // Directory order depends on the file system; a sorted list keeps loading reproducible.
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace dax::plugins
