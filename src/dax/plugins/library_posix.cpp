// The platform loader on POSIX systems: dlopen and friends. Its Windows counterpart is
// library_windows.cpp; the build compiles exactly one of them.
#include <dax/plugins/folders.hpp>
#include <dax/plugins/library.hpp>

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace dax::plugins {

std::string get_executable_folder() {
    std::error_code ec;
    const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return ".";
    return exe.parent_path().string();
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
