// Scene synchronisation: the scene record sent to and read from the server, and the
// per-step state updates applied to the components.
#include <dax/client/dax_client.hpp>

#include <algorithm>
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

// How many entries ahead of the one being updated a state update fetches components; their
// registry entries are fetched twice as far ahead, so that each is there when its component's
// address is read.
constexpr size_t kAhead = 8;

// Starts loading the line at `p` (for writing).
inline void prefetch_line(const void* p) {
#if defined(__GNUC__)
    __builtin_prefetch(p, 1);
#else
    (void)p;
#endif
}

// Starts loading the first lines of a component an update will reach soon: in a scene far
// larger than the caches the components' own memory is what an update waits for.
inline void prefetch(const IClientComponent* component) {
    const char* p = reinterpret_cast<const char*>(component);
    for (int line = 0; line < 6; ++line) prefetch_line(p + 64 * line);
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
    if (count == 0) return;
    // A server lists the states in ascending id order, as the registry keeps them: the entry
    // after the one just updated is tried first, then a binary search of the index. The index
    // is contiguous, so the entries and components ahead can be fetched while a state decodes
    // instead of one tree node after another.
    const ComponentMap::Index* index = &components.index();
    const uint64_t generation = components.generation();
    size_t next = 0;
    for (uint64_t i = 0; i < count; ++i) {
        long long id = 0;
        msgpack::read(in, id);
        if (index == nullptr) {
            // A component's update added or removed entries: the rest goes by the tree.
            IClientComponent* component = getComponent(id);
            if (component == nullptr) throw_missing(id);
            component->update_state(in);
            continue;
        }
        const std::vector<int64_t>& ids = index->ids;
        size_t at = next;
        if (at >= ids.size() || ids[at] != id) {
            at = size_t(std::lower_bound(ids.begin(), ids.end(), int64_t(id)) - ids.begin());
            if (at == ids.size() || ids[at] != id) throw_missing(id);
        }
        next = at + 1;
        const auto& entries = index->entries;
        if (at + 2 * kAhead < entries.size()) prefetch_line(entries[at + 2 * kAhead]);
        if (at + kAhead < entries.size()) prefetch(entries[at + kAhead]->second);
        IClientComponent* component = entries[at]->second;
        if (component == nullptr) throw_missing(id);  // an entry made by operator[] alone
        component->update_state(in);
        if (components.generation() != generation) index = nullptr;
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
