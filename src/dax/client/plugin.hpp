#pragma once

// What a plug-in library includes: the interfaces it implements and the export macro
// (DAX_PLUGIN_EXPORT("name", ModuleClass) with ModuleClass deriving from PluginModule).

#include <dax/client/components/client_component.hpp>
#include <dax/client/components/module_factory.hpp>
#include <dax/plugins/export.hpp>
#include <dax/plugins/plugin_module.hpp>

namespace dax::client {

/// The base of a plug-in's module object: registers the plug-in's factories with the client.
using PluginModule = dax::plugins::PluginModule<IModuleFactory>;

}  // namespace dax::client
