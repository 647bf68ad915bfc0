// Lifecycle of a DaxClient (plug-ins loaded at construction, the pump, the state-update
// subscription) and its component registry.
#include <dax/client/dax_client.hpp>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

#include <dax/plugins/folders.hpp>
#include <dax/plugins/plugin_handler.hpp>
#include <qor/qor_client.hpp>

namespace dax::client {

using Handler = dax::plugins::PluginHandler<IModuleFactory>;

namespace {

// The one library in the plug-in folder that is not a plug-in: ourselves.
constexpr const char* kOwnLibraryName = "qor_sdk_cpp";

}  // namespace

// ---- lifecycle ------------------------------------------------------------------------------

DaxClient::DaxClient(qor::QorClient* peer)
    : peer(peer != nullptr ? peer : throw std::runtime_error("DaxClient: peer must not be null")),
      plugin_handler(new Handler) {
    // The destructor does not run for a constructor that throws: release what was gathered.
    // The libraries stay loaded, though: the exception in flight may be a plug-in's own type,
    // whose code must still be there when the caller catches it.
    try {
        load_plugins_and_subscribe();
    } catch (...) {
        for (IModuleFactory* factory : factories) delete factory;
        factories.clear();
        delete plugin_handler;
        throw;
    }
}

void DaxClient::load_plugins_and_subscribe() {
    std::cout << "Create the client " << std::endl;
    std::cout << "[Client] Search plugins: " << std::endl;

    const std::string folder = dax::plugins::get_executable_folder();
    const std::vector<std::string> names = dax::plugins::get_plugins(folder, "qor_", "sdk_cpp");
    for (const std::string& name : names) {
        if (name == kOwnLibraryName) continue;

        dax::plugins::BaseFactory<IModuleFactory>::Creator creator = nullptr;
        std::string plugin_name;
        try {
            // The result is not looked at: a library whose own init failed is still used
            // when another plug-in registered a creation function under its name.
            plugin_handler->load(folder, name, plugin_name);
            creator = plugin_handler->factory_table().find(plugin_name);
        } catch (const std::exception& e) {
            // A client whose plug-in search broke keeps what it has and subscribes nothing.
            std::cerr << "[Client] * Failed to load plugin " << folder << "/" << name << ": "
                      << e.what() << std::endl;
            return;
        }
        if (creator == nullptr) continue;

        std::unique_ptr<dax::plugins::PluginModule<IModuleFactory>> module(creator());
        if (!module) continue;
        module->registerFactories(&factories);
        std::cout << "[Client] * Loaded plugin " << plugin_name << " (" << module->info() << ")"
                  << std::endl;
    }

    scene_state_version = -1;
    timeout_ms = 1000;

    init_art();
    init_leap(dax::types::kLeapTopics.count);
    init_optitrack();
    init_xsens();
    init_kinect(dax::types::kKinectTopics.count);
    init_openvr(dax::types::kOpenvrTopics.count);
    init_moticon();
}

DaxClient::~DaxClient() {
    Clear();
    for (IModuleFactory* factory : factories) delete factory;
    factories.clear();
    std::cout << "[Client] Cleanup" << std::endl;
    // Components and factories are gone, so no code of a plug-in is still referenced.
    plugin_handler->unload();
    delete plugin_handler;
}

qor::QorClient* DaxClient::getPeer() {
    return peer;
}

void DaxClient::setTimeoutMs(int ms) {
    timeout_ms = ms;
}

int DaxClient::getTimeout() {
    return timeout_ms;
}

void DaxClient::setAsyncTimeoutMs(int ms) {
    async_timeout_ms = ms > 0 ? ms : 0;
}

int DaxClient::getAsyncTimeoutMs() const {
    return async_timeout_ms;
}

void DaxClient::setWaitStrategy(WaitStrategy strategy) {
    wait_strategy = strategy;
}

WaitStrategy DaxClient::getWaitStrategy() const {
    return wait_strategy;
}

void DaxClient::pause_until(std::chrono::steady_clock::time_point until) {
    if (wait_strategy != WaitStrategy::sleep) return;
    const auto left = until - std::chrono::steady_clock::now();
    if (left > left.zero()) peer->wait(left);
}

int DaxClient::getSceneStateVersion() const {
    return scene_state_version;
}

bool DaxClient::full_update() {
    const bool first = peer->update_first();
    const bool second = peer->update_second();
    return first || second;
}

bool DaxClient::ping_server() {
    return false;
}

void DaxClient::init(const std::string& /*name*/,
                     const std::function<void(int64_t, std::string)>& on_subscribed) {
    std::function<void(dax::types::integration_result_t)> handler =
        [this](const dax::types::integration_result_t& result) { update_scene_state(result); };
    std::function<void(bool, std::string)> status = [on_subscribed](bool ok, std::string text) {
        if (on_subscribed) on_subscribed(ok ? 1 : 0, std::move(text));
    };
    peer->bind_publish<dax::types::integration_result_t>("qor.server.update", handler, status);
}

// ---- component registry ---------------------------------------------------------------------

IClientComponent* DaxClient::Create(const std::string& type) {
    const int64_t id = next_component_id++;
    return Create(type, id, 0);
}

IClientComponent* DaxClient::Create(const std::string& type, int64_t id, int clientId) {
    IClientComponent* component = nullptr;
    for (IModuleFactory* factory : factories) {
        component = factory->create(type, this, id);
        if (component != nullptr) break;
    }
    if (component == nullptr) {
        throw std::runtime_error("Error in DaxClient::Create : type '" + type + "' not found");
    }
    component->setClientId(clientId);
    // An existing entry is replaced without deleting its component: callers that re-create
    // an id own the old one.
    components[id] = component;
    return component;
}

IClientComponent* DaxClient::getComponent(int64_t id) {
    const auto it = components.find(id);
    return it == components.end() ? nullptr : it->second;
}

void DaxClient::Clear() {
    for (auto& [id, component] : components) delete component;
    components.clear();
}

void DaxClient::Reset() {
    Clear();
    next_component_id = 0;
}

}  // namespace dax::client
