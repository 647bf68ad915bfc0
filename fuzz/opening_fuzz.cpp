// Both halves of the session opening fed arbitrary messages. The first byte picks the side and
// what the router accepts (anyone, a ticket, a wampcra secret, a salted wampcra secret); the
// rest is a run of messages, each as a two-byte big-endian length and its bytes. Every reply
// must encode, and an opening that has ended stays where it ended.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp/opening.hpp>
#include <qor/wamp/receive.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace wamp = qor::wamp;

std::vector<wamp::Credential> credentials(uint8_t kind) {
    wamp::Credential c;
    c.authid = "client";
    switch (kind % 4) {
        case 0:
            return {};
        case 1:
            c.ticket = "secret";
            break;
        case 2:
            c.wampcra_secret = "secret";
            break;
        default:
            c.wampcra_secret = "secret";
            c.wampcra_salt = "salt";
            c.wampcra_iterations = 10;
            break;
    }
    return {c};
}

void encode_all(const std::vector<wamp::Message>& replies) {
    for (const wamp::Message& reply : replies) wamp::serialize(reply);  // throws: a crash
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool router_side = data[0] & 1;
    wamp::RouterOpening router("realm1", credentials(data[0] >> 1), [] { return 7; });
    wamp::ClientCredentials offer;
    offer.realm = "realm1";
    offer.authid = "client";
    offer.authmethods = {"wampcra", "ticket"};
    offer.ticket = offer.secret = (data[0] & 8) ? "secret" : "";
    wamp::ClientOpening client(offer);
    encode_all({client.hello()});

    size_t at = 1;
    while (at + 2 <= size) {
        size_t length = size_t(data[at]) << 8 | data[at + 1];
        at += 2;
        if (length > size - at) length = size - at;
        const mp::buffer bytes(data + at, length);
        at += length;
        wamp::Message message(0);
        try {
            message = wamp::parse_message(bytes);
        } catch (const std::exception&) {
            continue;  // not a message: the transports refuse it before any opening sees it
        }
        if (router_side) {
            const auto before = router.stage();
            std::vector<wamp::Message> replies;
            try {
                replies = router.receive(message);
            } catch (const std::exception&) {
                continue;
            }
            encode_all(replies);
            if ((before == wamp::RouterOpening::Stage::joined ||
                 before == wamp::RouterOpening::Stage::refused) &&
                router.stage() != before)
                __builtin_trap();
        } else {
            const auto before = client.stage();
            std::vector<wamp::Message> replies;
            try {
                replies = client.receive(message);
            } catch (const std::exception&) {
                continue;
            }
            encode_all(replies);
            if (before != wamp::ClientOpening::Stage::hello && client.stage() != before)
                __builtin_trap();
        }
    }
    return 0;
}
