#pragma once

// The two strings a client component is filled with when it is rebuilt from the server's scene.

#include <string>

#include <dax/types/record.hpp>

namespace dax::types {

/// Two server-defined strings copied into a component's own members.
struct component_data_t {
    std::string first;
    std::string second;
    DAX_RECORD_FIELDS(first, second)
};

}  // namespace dax::types
