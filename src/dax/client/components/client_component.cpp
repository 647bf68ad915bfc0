#include <dax/client/components/client_component.hpp>
#include <dax/client/components/module_factory.hpp>

namespace dax::client {

IClientComponent::IClientComponent(int64_t id, DaxClient* client) : client(client), id(id) {}

IClientComponent::~IClientComponent() = default;

int64_t IClientComponent::getId() const {
    return id;
}

int IClientComponent::getClientId() const {
    return clientId;
}

void IClientComponent::setClientId(int value) {
    clientId = value;
}

void IClientComponent::update_state(qor::serialization::msgpack::ReadBuffer&) {}

void IClientComponent::fillComponentData(const dax::types::component_data_t& data) {
    // A record that aliases our own texts would otherwise be copied onto itself.
    if (&data.first != &data_first) data_first = data.first;
    if (&data.second != &data_second) data_second = data.second;
}

IModuleFactory::~IModuleFactory() = default;

}  // namespace dax::client
