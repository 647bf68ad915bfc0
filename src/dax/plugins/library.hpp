#pragma once

#include <string>

namespace dax::plugins {

// A thin layer over the platform loader, kept out of the templates so that no platform
// header reaches the public headers.

/// Loads the shared library at `path`; null on failure with the loader's error in `error`
/// (dlerror's text on POSIX, the GetLastError code in decimal on Windows).
void* load_library(const std::string& path, std::string& error);

/// Address of the export `name` in a loaded library, or null.
void* find_symbol(void* library, const char* name);

/// Unloads a library returned by load_library.
void unload_library(void* library);

}  // namespace dax::plugins
