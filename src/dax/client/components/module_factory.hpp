#pragma once

#include <cstdint>
#include <string>

// In dax::client rather than dax::client::components: plug-ins are written against the
// name dax::client::IModuleFactory, which the client contract fixes.
namespace dax::client {

class DaxClient;
class IClientComponent;

/// Makes components of the types a plug-in provides. The client owns every factory a plug-in
/// registers and deletes it before the plug-in is unloaded. The virtual operations keep
/// their order; plug-ins are compiled against it.
///
/// Threading: the client calls `create` from its own thread only (inside Create or a pump
/// pass); a factory needs no locking unless it shares state with other threads itself.
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
