#pragma once

#include <string>

namespace qor {

/// The SDK's version as "major.minor.patch".
std::string version();

}  // namespace qor
