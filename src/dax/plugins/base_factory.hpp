#pragma once

#include <map>
#include <string>

namespace dax::plugins {

template <class Factory>
class PluginModule;

/// The table through which plug-ins register their creation functions, keyed by plug-in name.
/// Threading: not synchronised; filled and read by the thread that owns its PluginHandler.
template <class Factory>
class BaseFactory {
  public:
    /// Makes a new module object owned by the caller, or returns null. A plain function
    /// pointer rather than std::function: the table may outlive the plug-in's code.
    using Creator = PluginModule<Factory>* (*)();
    /// Plug-in name to creation function, ordered byte-wise.
    using Table = std::map<std::string, Creator>;

    virtual ~BaseFactory() = default;

    /// The table that "PluginInit" fills.
    Table& table() { return creators; }
    /// The creation function registered under `name`, or null.
    Creator find(const std::string& name) const {
        const auto it = creators.find(name);
        return it == creators.end() ? nullptr : it->second;
    }

  private:
    Table creators;
};

}  // namespace dax::plugins
