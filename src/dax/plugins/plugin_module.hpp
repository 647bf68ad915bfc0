#pragma once

#include <string>
#include <vector>

#include <dax/plugins/base_factory.hpp>

namespace dax::plugins {

/// The object a plug-in's creation function returns: it hands the plug-in's factories over.
/// The virtual operations keep this order; plug-ins are compiled against it.
/// Threading: the host calls it from the thread that loads the plug-ins, while loading.
template <class Factory>
class PluginModule {
  public:
    /// The factory interface this module produces.
    using factory_type = Factory;
    /// The table type that the plug-in's "PluginInit" receives.
    using table_type = typename BaseFactory<Factory>::Table;

    /// The host deletes the module through this.
    virtual ~PluginModule() = default;
    /// Appends new factories to `factories`; the host takes ownership of them.
    virtual void registerFactories(std::vector<Factory*>* factories) = 0;
    /// A short description printed beside the plug-in's name when it loads.
    virtual std::string info() = 0;
};

}  // namespace dax::plugins
