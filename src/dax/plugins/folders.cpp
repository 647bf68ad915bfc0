#include <dax/plugins/folders.hpp>
#include <dax/plugins/library.hpp>

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace dax::plugins {

namespace fs = std::filesystem;

std::string get_executable_folder() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return ".";
    return exe.parent_path().string();
}

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

std::string get_lib_prefix() {
    return "lib";
}

std::string get_lib_ext() {
    return ".so";
}

void* load_library(const std::string& path, std::string& error) {
    // RTLD_LOCAL: two plug-ins may define the same symbols (GetName, PluginInit) without
    // one shadowing the other.
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* text = ::dlerror();
        error = text != nullptr ? text : "unknown loader error";
    }
    return library;
}

void* find_symbol(void* library, const char* name) {
    ::dlerror();  // a stale error must not be mistaken for this lookup's
    return ::dlsym(library, name);
}

void unload_library(void* library) {
    if (library != nullptr) ::dlclose(library);
}

}  // namespace dax::plugins
