// The plug-in's entry points: a factory for the components of <rigid_body/components.hpp>
// and the module that hands it to the client.

#include <rigid_body/components.hpp>

#include <string>
#include <vector>

#include <dax/client/plugin.hpp>

namespace rigid_body {
namespace {

class Factory : public dax::client::IModuleFactory {
  public:
    dax::client::IClientComponent* create(const std::string& type, dax::client::DaxClient* client,
                                          int64_t id) override {
        if (type == Ground::kType) return new Ground(id, client);
        if (type == Body::kType) return new Body(id, client);
        return nullptr;
    }
};

class Module : public dax::client::PluginModule {
  public:
    void registerFactories(std::vector<dax::client::IModuleFactory*>* factories) override {
        factories->push_back(new Factory());
    }
    std::string info() override {
        return "rigid bodies: Ground, Body (box, sphere, capsule, mesh)";
    }
};

}  // namespace
}  // namespace rigid_body

DAX_PLUGIN_EXPORT("rigid_body", rigid_body::Module)
