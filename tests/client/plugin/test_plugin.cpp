// One source, several test plug-ins: the build selects the behaviour with definitions.
//   TEST_PLUGIN_NAME   the name "GetName" reports
//   TEST_PLUGIN_INFO   the module's info text
//   TEST_NO_GET_NAME   leave "GetName" out
//   TEST_NO_INIT       leave "PluginInit" out
//   TEST_THROW         "GetName" throws
//   TEST_FACTORIES     register the Body and Counter factories
//   TEST_THROW_REGISTER  register one factory, then throw from registerFactories

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <dax/client/plugin.hpp>

#include "test_components.hpp"

namespace {

using dax::client::DaxClient;
using dax::client::IClientComponent;
using dax::client::IModuleFactory;

template <class Component>
class Factory : public IModuleFactory {
  public:
    explicit Factory(std::string type) : type_(std::move(type)) {}
    IClientComponent* create(const std::string& type, DaxClient* client, int64_t id) override {
        return type == type_ ? new Component(id, client) : nullptr;
    }

  private:
    std::string type_;
};

// Says when it is deleted, so that a test sees a factory released after a failed construction.
class NoisyFactory : public IModuleFactory {
  public:
    ~NoisyFactory() override { std::cout << "plugin: factory released" << std::endl; }
    IClientComponent* create(const std::string&, DaxClient*, int64_t) override { return nullptr; }
};

class Module : public dax::client::PluginModule {
  public:
    void registerFactories(std::vector<IModuleFactory*>* factories) override {
#ifdef TEST_FACTORIES
        factories->push_back(new Factory<client_test::Body>("Body"));
        factories->push_back(new Factory<client_test::Counter>("Counter"));
#elif defined(TEST_THROW_REGISTER)
        factories->push_back(new NoisyFactory);
        throw std::runtime_error("test plugin cannot register");
#else
        (void)factories;
#endif
    }
    std::string info() override {
        return TEST_PLUGIN_INFO;
    }
};

}  // namespace

#if !defined(TEST_NO_GET_NAME) && !defined(TEST_NO_INIT) && !defined(TEST_THROW)
// A well-behaved plug-in uses the export macro, as a third party would.
DAX_PLUGIN_EXPORT(TEST_PLUGIN_NAME, Module)
#else
#if !defined(TEST_NO_GET_NAME)
extern "C" __attribute__((visibility("default"))) void GetName(std::string* name) {
#ifdef TEST_THROW
    (void)name;
    throw std::runtime_error("test plugin refuses to load");
#else
    *name = TEST_PLUGIN_NAME;
#endif
}
#endif
#if !defined(TEST_NO_INIT)
extern "C" __attribute__((visibility("default"))) void PluginInit(Module::table_type* table) {
    (*table)[TEST_PLUGIN_NAME] = []() -> dax::client::PluginModule* { return new Module(); };
}
#endif
#endif
