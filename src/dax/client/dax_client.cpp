#include <dax/client/dax_client.hpp>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

#include <dax/plugins/folders.hpp>
#include <dax/plugins/plugin_handler.hpp>
#include <qor/qor_client.hpp>
#include <qor/wamp/connection.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>

namespace dax::client {

namespace msgpack = qor::serialization::msgpack;
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
    init_leap(10);
    init_optitrack();
    init_xsens();
    init_kinect(5);
    init_openvr(10);
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

// ---- scene synchronisation ------------------------------------------------------------------

void DaxClient::send_scene_to_server() {
    std::vector<uint8_t> out;
    msgpack::pack_array_header(out, components.size());
    for (const auto& [id, component] : components) {
        msgpack::pack_array_header(out, 4);
        msgpack::pack(out, component->getType());
        msgpack::pack(out, static_cast<long long>(id));
        msgpack::pack(out, component->getClientId());
        component->serialize(out);
    }
    SEND_SCENE(msgpack::buffer(out), [](qor::wamp::RpcResult<int>) {});
}

void DaxClient::get_server_scene() {
    Clear();
    GET_SERVER_SCENE([this](qor::wamp::RpcResult<msgpack::buffer> result) {
        if (result.isError) return;
        deserialize_components(result.value, true);
        for (auto& [id, component] : components) component->onSceneLoaded();
    });
}

void DaxClient::update_scene_from_server() {
    GET_SERVER_SCENE([this](qor::wamp::RpcResult<msgpack::buffer> result) {
        if (result.isError) return;
        deserialize_components(result.value, false);
    });
}

namespace {

[[noreturn]] void throw_missing(int64_t id) {
    throw std::runtime_error("update_scene_state: component not found id=" + std::to_string(id));
}

}  // namespace

void DaxClient::deserialize_components(const msgpack::buffer& data, bool create) {
    msgpack::ReadBuffer in(data);
    const uint64_t count = msgpack::read_array_header(in);
    for (uint64_t i = 0; i < count; ++i) {
        msgpack::read_array_header(in);  // four by contract; each component reads its own value
        std::string type;
        msgpack::read(in, type);
        long long id = 0;
        msgpack::read(in, id);
        int client_id = 0;
        msgpack::read(in, client_id);
        IClientComponent* component = nullptr;
        if (create) {
            component = Create(type, id, client_id);
        } else {
            component = getComponent(id);
            if (component == nullptr) throw_missing(id);
        }
        component->deserialize(in);
    }
}

void DaxClient::update_scene_state(const dax::types::integration_result_t& result) {
    ++scene_state_version;
    msgpack::ReadBuffer in(result.states);
    const uint64_t count = msgpack::read_map_header(in);
    for (uint64_t i = 0; i < count; ++i) {
        long long id = 0;
        msgpack::read(in, id);
        IClientComponent* component = getComponent(id);
        if (component == nullptr) throw_missing(id);
        component->update_state(in);
    }
}

void DaxClient::sync_step() {
    // Shared with the pending call: if the wait is left by an exception, a late result must
    // not write into a flag that no longer exists.
    auto done = std::make_shared<bool>(false);
    STEP_SIMULATION([this, done](qor::wamp::RpcResult<dax::types::integration_result_t> result) {
        if (result.isError) return;  // an error does not end the wait; the next step may
        update_scene_state(result.value);
        *done = true;
    });
    while (!*done) {
        peer->update_first();
        peer->update_second();
        // Nothing can answer once the transport lost the server: leave instead of spinning.
        if (!*done && !peer->server_connected) {
            throw std::runtime_error(qor::wamp::CONNECTION_LOST);
        }
    }
}

// ---- device streams -------------------------------------------------------------------------

template <class Frame>
void DaxClient::bind_stream(DeviceStore<Frame>& store, const std::string& topic) {
    store.device_available = false;
    std::function<void(const Frame&)> handler = [&store](const Frame& frame) {
        store.device_frame = frame;
        store.device_available = true;
    };
    peer->bind_device<Frame>(topic, handler);
}

template <class Frame>
void DaxClient::bind_streams(DeviceStores<Frame>& stores, const std::string& prefix, int count) {
    for (int id = 0; id < count; ++id) {
        stores.device_available.push_back(false);
        stores.device_frames.emplace_back();
        std::function<void(const Frame&)> handler = [&stores, id](const Frame& frame) {
            stores.device_frames[id] = frame;
            stores.device_available[id] = true;
        };
        peer->bind_device<Frame>(prefix + std::to_string(id), handler);
    }
}

void DaxClient::init_art() {
    bind_stream(art, "art_frame");
}
void DaxClient::init_leap(int count) {
    bind_streams(leap, "leap_frame_", count);
}
void DaxClient::init_optitrack() {
    bind_stream(optitrack, "optitrack_frame");
}
void DaxClient::init_xsens() {
    bind_stream(xsens, "xsens_frame");
}
void DaxClient::init_kinect(int count) {
    bind_streams(kinect, "kinect_frame_", count);
}
void DaxClient::init_openvr(int count) {
    bind_streams(openvr, "openvr_frame_", count);
}
void DaxClient::init_moticon() {
    bind_stream(moticon, "moticon_frame");
}

namespace {

template <class Frame>
bool copy_frame(const DeviceStore<Frame>& store, Frame& out) {
    if (!store.device_available) return false;
    out = store.device_frame;
    return true;
}

// Stream ids are not trusted: an id outside the subscribed range reads as "no frame".
template <class Frame>
bool has_stream(const DeviceStores<Frame>& stores, int id) {
    return id >= 0 && static_cast<std::size_t>(id) < stores.device_available.size() &&
           stores.device_available[id];
}

template <class Frame>
bool copy_frame(const DeviceStores<Frame>& stores, Frame& out, int id) {
    if (!has_stream(stores, id)) return false;
    out = stores.device_frames[id];
    return true;
}

template <class Frame>
std::vector<int> stream_ids(const DeviceStores<Frame>& stores) {
    std::vector<int> ids;
    for (std::size_t id = 0; id < stores.device_available.size(); ++id) {
        if (stores.device_available[id]) ids.push_back(static_cast<int>(id));
    }
    return ids;
}

}  // namespace

bool DaxClient::get_art_frame(dax::types::art_frame_t& out) {
    return copy_frame(art, out);
}
bool DaxClient::get_moticon_frame(dax::types::moticon_frame_t& out) {
    return copy_frame(moticon, out);
}
bool DaxClient::get_optitrack_frame(dax::types::optitrack_frame_t& out) {
    return copy_frame(optitrack, out);
}
bool DaxClient::get_xsens_frame(dax::types::xsens_frame_t& out) {
    return copy_frame(xsens, out);
}
bool DaxClient::is_art_available() {
    return art.device_available;
}
bool DaxClient::is_moticon_available() {
    return moticon.device_available;
}
bool DaxClient::is_optitrack_available() {
    return optitrack.device_available;
}
bool DaxClient::is_xsens_available() {
    return xsens.device_available;
}
bool DaxClient::get_kinect_frame(dax::types::kinect_frame_t& out, int id) {
    return copy_frame(kinect, out, id);
}
bool DaxClient::get_leap_frame(dax::types::leap_frame_t& out, int id) {
    return copy_frame(leap, out, id);
}
bool DaxClient::get_openvr_frame(dax::types::openvr_frame_t& out, int id) {
    return copy_frame(openvr, out, id);
}
std::vector<int> DaxClient::get_kinect_ids() {
    return stream_ids(kinect);
}
std::vector<int> DaxClient::get_leap_ids() {
    return stream_ids(leap);
}
std::vector<int> DaxClient::get_openvr_ids() {
    return stream_ids(openvr);
}
bool DaxClient::is_kinect_available(int id) {
    return has_stream(kinect, id);
}
bool DaxClient::is_leap_available(int id) {
    return has_stream(leap, id);
}
bool DaxClient::is_openvr_available(int id) {
    return has_stream(openvr, id);
}

}  // namespace dax::client
