#pragma once

// The client SDK's entry point: the DaxClient façade, the component and factory interfaces
// that plug-ins implement, and the helper plug-in authors use to export their entry points.
#include <dax/client/components/client_component.hpp>
#include <dax/client/dax_client.hpp>
#include <dax/client/components/module_factory.hpp>
#include <dax/client/plugin.hpp>
