#pragma once

#include <cstdint>
#include <string>

namespace dax::client {

class DaxClient;
class IClientComponent;

/// Makes components of the types a plug-in provides. The client owns every factory a plug-in
/// registers and deletes it before the plug-in is unloaded. The virtual operations keep
/// their order; plug-ins are compiled against it.
class IModuleFactory {
  public:
    IModuleFactory() = default;
    IModuleFactory(const IModuleFactory&) = default;
    IModuleFactory& operator=(const IModuleFactory&) = default;
    /// Pure, with a body, so that factories are deleted through this interface.
    virtual ~IModuleFactory() = 0;
    /// A new component of `type` with `id`, owned by the caller; null for a type not made here.
    virtual IClientComponent* create(const std::string& type, DaxClient* client, int64_t id) = 0;
};

}  // namespace dax::client
