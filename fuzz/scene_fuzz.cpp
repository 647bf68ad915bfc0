// Scene and per-step state decoding of DaxClient over arbitrary bytes, with the rigid-body
// plug-in's components doing their own reading. The first byte picks the entry: a scene that
// creates components, a scene that updates the existing ones, or a state map.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/wamp/client.hpp>

namespace {

namespace mp = qor::serialization::msgpack;

struct Setup {
    qor::wamp::Client endpoint{"server", nullptr};
    qor::QorClient peer;
    std::unique_ptr<dax::client::DaxClient> client;

    Setup() {
        endpoint.session.write = [](const uint8_t*, uint64_t) {};
        peer.server_endpoint = &endpoint;
        peer.has_server = true;
        peer.server_connected = true;
        client = std::make_unique<dax::client::DaxClient>(&peer);
    }

    // A few components under small ids, so that updates have something to land on.
    void populate() {
        client->Reset();
        client->Create("Ground", 0, 0);
        client->Create("Body", 1, 0);
        client->Create("Body", 2, 1);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Setup setup;
    if (size == 0) return 0;
    setup.populate();
    const mp::buffer bytes(data + 1, size - 1);
    try {
        switch (data[0] % 3) {
            case 0:
                setup.client->Clear();
                setup.client->deserialize_components(bytes, true);
                break;
            case 1:
                setup.client->deserialize_components(bytes, false);
                break;
            default: {
                dax::types::integration_result_t result;
                result.states = bytes;
                setup.client->update_scene_state(result);
                break;
            }
        }
    } catch (const std::exception&) {
        // bad input is refused with an error; only crashes, leaks and hangs are findings
    }
    setup.client->Reset();
    return 0;
}
