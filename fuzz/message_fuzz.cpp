// The receive side of a client endpoint: parse_message, then dispatch through a QorClient that
// has calls pending (one per result type the operations use) and subscriptions, some confirmed
// and one still pending. The first byte says whether the message's request and subscription ids
// are replaced by ones that exist, so that both known and unknown ids are reached.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <dax/types.hpp>
#include <qor/qor_client.hpp>
#include <qor/wamp/client.hpp>
#include <qor/wamp/receive.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace wamp = qor::wamp;
using namespace dax::types;

struct Peer {
    wamp::Client endpoint{"server", nullptr};
    qor::QorClient peer;
    std::vector<wamp::Message> written;
    std::vector<uint64_t> requests;
    std::vector<uint64_t> subscriptions;

    Peer() {
        endpoint.session.write = [this](const uint8_t* data, uint64_t size) {
            written.push_back(wamp::parse_message(mp::buffer(data, size)));
        };
        peer.server_endpoint = &endpoint;
        peer.has_server = true;
        peer.server_connected = true;

        call<int>();
        call<bool>();
        call<long long>();
        call<std::string>();
        call<mp::buffer>();
        call<integration_result_t>();
        call<mesh_batch_t>();
        call<mesh_info_t>();
        call<vector_bool_t>();
        call<vector_string_t>();
        call<vector_pair_string_double_t>();
        for (const wamp::Message& m : written) requests.push_back(m.request.value());

        subscribe<integration_result_t>("qor.server.update");
        subscribe<art_frame_t>("art_frame");
        subscribe<kinect_frame_t>("kinect_frame_0");
        subscribe<leap_frame_t>("leap_frame_0");
        subscribe<moticon_frame_t>("moticon_frame");
        subscribe<openvr_frame_t>("openvr_frame_0");
        subscribe<optitrack_frame_t>("optitrack_frame");
        subscribe<xsens_frame_t>("xsens_frame");
        // Every topic but the last is confirmed, each under its own subscription id.
        uint64_t subscription = 1000;
        for (const wamp::Message& m : written) {
            if (m.type != wamp::SUBSCRIBE || m.topic == "xsens_frame") continue;
            wamp::Message answer(wamp::SUBSCRIBED);
            answer.request = m.request;
            answer.subscription = wamp::Id(subscription);
            endpoint.dispatch(answer);
            subscriptions.push_back(subscription++);
        }
    }

    template <class T>
    void call() {
        peer.call<T>([](wamp::RpcResult<T>) {}, "qor.server.operation.X");
    }
    template <class T>
    void subscribe(const std::string& topic) {
        peer.bind_publish<T>(
            topic, [](T) {}, [](bool, std::string) {});
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    Peer peer;
    const uint8_t flags = data[0];
    try {
        wamp::Message m = wamp::parse_message(mp::buffer(data + 1, size - 1));
        if (flags & 1)
            m.request = wamp::Id(peer.requests[m.request.value() % peer.requests.size()]);
        if (flags & 2) {
            m.subscription =
                wamp::Id(peer.subscriptions[m.subscription.value() % peer.subscriptions.size()]);
        }
        peer.endpoint.dispatch(m);
        // Every argument a received message holds can be taken out on its own.
        const std::vector<mp::buffer> args = wamp::received_args(m);
        if (args.size() != m.args_count) __builtin_trap();
    } catch (const std::exception&) {
        // refused with an error: that is all bad input may cause
    }
    return 0;
}
