#pragma once

// The dax::types records exchanged with the server, each with its `pack` and `read`.
#include <dax/types/component.hpp>
#include <dax/types/device_topics.hpp>
#include <dax/types/devices.hpp>
#include <dax/types/geometry.hpp>
#include <dax/types/mesh.hpp>
#include <dax/types/operations.hpp>
#include <dax/types/persistence.hpp>
#include <dax/types/record.hpp>
#include <dax/types/simulation.hpp>
