#include <qor/version.hpp>

namespace qor {

std::string version() { return "0.1.0"; }

}  // namespace qor
