#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <dax/types/component.hpp>
#include <qor/serialization/msgpack/read.hpp>

// In dax::client rather than dax::client::components: plug-ins are written against the
// name dax::client::IClientComponent, which the client contract fixes.
namespace dax::client {

class DaxClient;

/// A client-side mirror of one scene component, made by a plug-in's IModuleFactory and owned
/// by its DaxClient. Plug-ins are compiled against this class: the virtual operations keep
/// their order. Used from the client's thread only.
class IClientComponent {
  public:
    /// Deleted by the owning client (Clear, Reset, destruction).
    virtual ~IClientComponent();
    /// The component's id, unique within its client.
    virtual int64_t getId() const;
    /// The client id that travels with the component in the scene record.
    virtual int getClientId() const;
    /// Stores the client id.
    virtual void setClientId(int clientId);
    /// The type name under which a factory creates this kind of component.
    virtual std::string getType() = 0;
    /// Applies one per-step state; must read exactly its own value. Does nothing by default.
    virtual void update_state(qor::serialization::msgpack::ReadBuffer& in);
    /// Reserved for plug-ins; the client never calls it.
    virtual void extension1() = 0;
    /// Reserved for plug-ins; the client never calls it.
    virtual void extension2() = 0;
    /// Appends exactly one MessagePack value holding the component's own data.
    virtual void serialize(std::vector<uint8_t>& out) = 0;
    /// Reads exactly the one value that serialize (or the server) wrote.
    virtual void deserialize(qor::serialization::msgpack::ReadBuffer& in) = 0;
    /// Called once the whole scene has arrived from the server and every component exists.
    virtual void onSceneLoaded() = 0;

    /// Copies the record's two texts into the component's own; touches nothing else.
    void fillComponentData(const dax::types::component_data_t& data);

    IClientComponent(const IClientComponent&) = default;
    IClientComponent& operator=(const IClientComponent&) = default;

  protected:
    /// Sets the owner and the id; client id 0, both texts empty.
    IClientComponent(int64_t id, DaxClient* client);

    DaxClient* client;        ///< the owning client; borrowed
    int64_t id;               ///< unique within the client
    int clientId = 0;         ///< set by setClientId
    std::string data_first;   ///< first text of the component's component_data_t
    std::string data_second;  ///< second text of the component's component_data_t
};

}  // namespace dax::client
