// The platform loader on Windows: LoadLibraryA and friends. Its POSIX counterpart is
// library_posix.cpp; the build compiles exactly one of them.
#include <dax/plugins/folders.hpp>
#include <dax/plugins/library.hpp>

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <string>
#include <vector>

namespace dax::plugins {

std::string get_executable_folder() {
    // MAX_PATH is only the common case: grow until the whole path fits.
    std::vector<char> path(MAX_PATH);
    for (;;) {
        const DWORD n = ::GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (n == 0) return ".";
        if (n < path.size()) {
            const std::string exe(path.data(), n);
            const std::string::size_type cut = exe.find_last_of("\\/");
            return cut == std::string::npos ? std::string(".") : exe.substr(0, cut);
        }
        path.resize(path.size() * 2);
    }
}

std::string get_lib_prefix() {
    return "";
}

std::string get_lib_ext() {
    return ".dll";
}

void* load_library(const std::string& path, std::string& error) {
    HMODULE library = ::LoadLibraryA(path.c_str());
    // The failure's code is what the logs report, as a plain unsigned number.
    if (library == nullptr) error = std::to_string(static_cast<unsigned long>(::GetLastError()));
    return reinterpret_cast<void*>(library);
}

void* find_symbol(void* library, const char* name) {
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

void unload_library(void* library) {
    if (library != nullptr) ::FreeLibrary(static_cast<HMODULE>(library));
}

}  // namespace dax::plugins
