// Scene synchronisation: the scene record sent to and read from the server, and the
// per-step state updates applied to the components.
#include <dax/client/dax_client.hpp>

#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <qor/qor_client.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/connection.hpp>

namespace dax::client {

namespace msgpack = qor::serialization::msgpack;

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

// Starts loading the first lines of a component an update will reach soon: in
// a scene far larger than the caches the components' own memory is what an update waits for.
inline void prefetch(const IClientComponent* component) {
#if defined(__GNUC__)
    const char* p = reinterpret_cast<const char*>(component);
    for (int line = 0; line < 6; ++line) __builtin_prefetch(p + 64 * line, 1);
#else
    (void)component;
#endif
}

}  // namespace

void DaxClient::deserialize_components(const msgpack::buffer& data, bool create) {
    msgpack::ReadBuffer in(data);
    const uint64_t count = msgpack::read_array_header(in);
    // Components this scene created so far, by id: a scene naming an id twice replaces the
    // first component, which nobody else holds, so it is deleted rather than lost.
    std::map<int64_t, IClientComponent*> created;
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
            IClientComponent*& earlier = created[id];
            delete earlier;
            earlier = component;
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
    // A server lists the states in ascending id order, as the registry keeps them: the entry
    // after the one just updated is tried before a search, which makes a large update a walk
    // instead of one tree descent per component. A component whose update removed entries
    // from the registry may have taken that entry with it, so the walk restarts from a search
    // whenever the registry's size changed.
    auto next = components.end();
    for (uint64_t i = 0; i < count; ++i) {
        long long id = 0;
        msgpack::read(in, id);
        auto found = next != components.end() && next->first == id ? next : components.find(id);
        if (found == components.end()) throw_missing(id);
        IClientComponent* component = found->second;
        next = std::next(found);
        if (next != components.end()) {
            // Walking the tree is a chain of loads: start the one after next now, so that
            // its nodes and component arrive while this state decodes.
            const auto after = std::next(next);
            if (after != components.end()) prefetch(after->second);
        }
        const size_t registered = components.size();
        component->update_state(in);
        if (components.size() != registered) next = components.end();
    }
}

void DaxClient::sync_step() {
    // Shared with the pending call: if the wait is left by an exception, a late result must
    // not write into state that no longer exists.
    struct Step {
        bool done = false;
        std::exception_ptr failed;  // applying this step's own state failed
    };
    auto step = std::make_shared<Step>();
    STEP_SIMULATION([step, this](qor::wamp::RpcResult<dax::types::integration_result_t> result) {
        if (result.isError) return;  // an error does not end the wait; the next step may
        step->done = true;
        try {
            update_scene_state(result.value);
        } catch (...) {
            step->failed = std::current_exception();
        }
    });
    // As in a blocking operation, only this step's own failure leaves through here; the
    // errors of other handlers pumped meanwhile are logged and counted.
    const qor::wamp::Caller& caller = peer->server_endpoint->caller;
    const uint64_t request = caller.last_request;
    while (!step->done) {
        try {
            peer->update_first();
            peer->update_second();
        } catch (const std::exception& e) {
            // Our answer is no longer pending and was never applied: it failed to decode.
            if (!step->done && caller.pending.count(request) == 0) throw;
            note_handler_error("sync_step", e);
        }
        if (step->failed) std::rethrow_exception(step->failed);
        // Nothing can answer once the transport lost the server: leave instead of spinning.
        if (!step->done && !peer->server_connected) {
            throw std::runtime_error(qor::wamp::CONNECTION_LOST);
        }
        // No time-out of its own: a long sleep is fine, the link wakes it when the step lands.
        if (!step->done) pause_until(std::chrono::steady_clock::now() + std::chrono::seconds(1));
    }
}

}  // namespace dax::client
