#pragma once

#include <string>

#include <dax/plugins/plugin_module.hpp>
#include <qor/export.hpp>

// Exports the two entry points a plug-in library must provide, with C linkage so that the
// host finds them by their plain names. Use once per library, at namespace scope:
//
//     DAX_PLUGIN_EXPORT("rigid_body", MyModule)
//
// where MyModule derives from dax::plugins::PluginModule<Factory> and is default-constructible.
#define DAX_PLUGIN_EXPORT(PLUGIN_NAME, MODULE_CLASS)                                    \
    extern "C" QOR_EXPORT void GetName(std::string* name) {                            \
        *name = PLUGIN_NAME;                                                            \
    }                                                                                   \
    extern "C" QOR_EXPORT void PluginInit(                                             \
        MODULE_CLASS::table_type* table) {                                              \
        (*table)[PLUGIN_NAME] =                                                         \
            []() -> ::dax::plugins::PluginModule<MODULE_CLASS::factory_type>* {         \
            return new MODULE_CLASS();                                                  \
        };                                                                              \
    }
