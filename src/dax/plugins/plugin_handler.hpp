#pragma once

#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <spdlog/spdlog.h>

#include <dax/plugins/base_factory.hpp>
#include <dax/plugins/folders.hpp>
#include <dax/plugins/library.hpp>
#include <dax/plugins/plugin_module.hpp>

namespace dax::plugins {

/// The logger named "logger", registered with a colour console sink when the application
/// has not registered one, so that a plug-in failure is reported rather than crashing.
/// Compiled in the library, so that includers do not pull in the console sinks.
std::shared_ptr<spdlog::logger> plugin_logger();

/// Loads plug-in libraries and keeps them loaded until unload(). One thread at a time.
template <class Factory>
class PluginHandler {
  public:
    /// Signature of the "GetName" export.
    using GetNameFn = void (*)(std::string*);
    /// Signature of the "PluginInit" export.
    using PluginInitFn = void (*)(typename BaseFactory<Factory>::Table*);

    PluginHandler() : state(new State) {}
    PluginHandler(const PluginHandler&) = delete;
    PluginHandler& operator=(const PluginHandler&) = delete;
    /// Frees the table and the handle list; does not unload (call unload() first).
    virtual ~PluginHandler() = default;

    /// Loads prefix + `name` + extension from `folder` and runs its exports; `plugin_name`
    /// receives the name from "GetName". False when any step failed (reported on the way).
    bool load(const std::string& folder, const std::string& name, std::string& plugin_name);

    /// The creation functions registered so far.
    BaseFactory<Factory>& factory_table() { return state->factory_table; }

    /// Number of libraries loaded and still held.
    std::size_t loaded_count() const { return state->modules.size(); }

    /// Unloads every library, last loaded first, then empties the handle list and the table.
    void unload();

  private:
    struct State {
        std::vector<void*> modules;
        BaseFactory<Factory> factory_table;
    };
    std::unique_ptr<State> state;
};

template <class Factory>
bool PluginHandler<Factory>::load(const std::string& folder, const std::string& name,
                                  std::string& plugin_name) {
    const std::string file = get_lib_prefix() + name + get_lib_ext();
    const std::string path = folder + "/" + file;

    // Probe first, so that a vanished file gets its own message, apart from a broken one.
    {
        std::ifstream probe(path, std::ios::binary);
        if (!probe.is_open()) {
            plugin_logger()->error("[Server] Could not find plugin {}", file);
            return false;
        }
    }

    std::string error;
    void* library = load_library(path, error);
    if (library == nullptr) {
        plugin_logger()->error("[Server] Failed to load plugin {}: error code {}", file, error);
        return false;
    }
    // From here the library stays loaded until unload(), whatever happens next.
    state->modules.push_back(library);

    auto get_name = reinterpret_cast<GetNameFn>(find_symbol(library, "GetName"));
    if (get_name == nullptr) {
        std::cerr << "Failed initializing " << file << ": unknown plugin name" << std::endl;
        plugin_name.clear();
        return false;
    }
    get_name(&plugin_name);

    auto plugin_init = reinterpret_cast<PluginInitFn>(find_symbol(library, "PluginInit"));
    if (plugin_init == nullptr) {
        plugin_logger()->error("[Server] Failed initializing plugin : {}", file);
        return false;
    }
    plugin_init(&state->factory_table.table());
    return true;
}

template <class Factory>
void PluginHandler<Factory>::unload() {
    for (auto it = state->modules.rbegin(); it != state->modules.rend(); ++it) {
        unload_library(*it);
    }
    state->modules.clear();
    state->factory_table.table().clear();
}

}  // namespace dax::plugins
