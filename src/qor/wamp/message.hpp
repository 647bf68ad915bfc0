#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/export.hpp>
#include <qor/wamp/id.hpp>

namespace qor::wamp {

// <windows.h> defines ERROR (wingdi.h) and REGISTERED (nb30.h) as macros, and some Windows
// headers YIELD. The names are part of our interface, so the macros are set aside while our
// headers are read, whichever was included first. A program that includes <windows.h> and
// names one of these codes itself undefines the macro first (or defines NOGDI, NONETBIOS).
#pragma push_macro("ERROR")
#pragma push_macro("REGISTERED")
#pragma push_macro("YIELD")
#undef ERROR
#undef REGISTERED
#undef YIELD

// WAMP message codes. No other code can be serialized.
constexpr uint32_t HELLO = 1, WELCOME = 2, ABORT = 3, CHALLENGE = 4, AUTHENTICATE = 5, GOODBYE = 6,
                   ERROR = 8, PUBLISH = 16, PUBLISHED = 17, SUBSCRIBE = 32, SUBSCRIBED = 33,
                   UNSUBSCRIBE = 34, UNSUBSCRIBED = 35, EVENT = 36, CALL = 48, RESULT = 50,
                   REGISTER = 64, REGISTERED = 65, UNREGISTER = 66, UNREGISTERED = 67,
                   INVOCATION = 68, YIELD = 70;

/// True for the codes above.
bool is_known_type(uint32_t type);
/// The upper-case name of a code ("CALL"), or "UNKNOWN".
const char* type_name(uint32_t type);

/// The one record of every WAMP message, built to be sent or filled from received bytes.
/// Arguments and dictionary values are held as encoded MessagePack values, never re-encoded.
struct Message {
    /// A received message's whole encoded array; empty for a message built locally.
    serialization::msgpack::buffer raw;
    /// Received: index in `raw` of the first byte of the first positional argument.
    uint64_t args_offset = 0;
    /// Received: index in `raw` one past the last byte of the last positional argument.
    uint64_t args_end = 0;
    /// Received: number of positional arguments.
    uint64_t args_count = 0;
    /// The message code.
    uint32_t type;
    /// HELLO realm.
    std::string realm;
    /// WELCOME session id.
    Id session;
    /// Request id of every request and of its answer.
    Id request;
    /// CHALLENGE authentication method.
    std::string authmethod;
    /// AUTHENTICATE signature.
    std::string signature;
    /// ERROR: the code of the failed request; starts at 3 on purpose.
    int32_t request_type = 3;
    /// ERROR: the error URI.
    std::string error;
    /// ABORT and GOODBYE: the reason URI.
    std::string reason;
    /// SUBSCRIBE and PUBLISH topic.
    std::string topic;
    /// PUBLISHED and EVENT publication id.
    Id publication;
    /// SUBSCRIBED, UNSUBSCRIBE and EVENT subscription id.
    Id subscription;
    /// CALL and REGISTER procedure URI.
    std::string procedure;
    /// REGISTERED, UNREGISTER and INVOCATION registration id.
    Id registration;
    /// Positional arguments to send, each one encoded value; received ones stay in `raw`.
    std::vector<serialization::msgpack::buffer> args;
    /// Details, Options or Extra: key to one encoded value, in ascending key order.
    std::map<std::string, serialization::msgpack::buffer> details;
    /// Received ArgumentsKw, key to one encoded value; never serialized.
    std::map<std::string, serialization::msgpack::buffer> arguments_kw;

    /// A message of code `type`, every other field at its initial value.
    explicit Message(uint32_t type);
    /// CALL or REGISTER: sets `procedure`; SUBSCRIBE: checks the topic then sets `topic`;
    /// PUBLISH: sets `topic`. Any other code raises an error.
    Message(uint32_t type, Id request, const std::string& uri);
};

/// Refuses topics that begin with "wamp" other than the two session meta topics.
void check_topic(const std::string& topic);

/// The encoded message in one block of exactly its size; unknown codes raise
/// "Wamp message serialize : unkown message type".
serialization::msgpack::buffer serialize(const Message& message);
/// The number of bytes `serialize` gives `message`; raises the same errors.
uint64_t serialized_size(const Message& message);
/// Writes the encoding of `message`, exactly `serialized_size` bytes, at `out`: for a sender
/// that frames the message in place in its outgoing queue.
void serialize_into(const Message& message, uint8_t* out);
/// `serialize` with one more positional argument after `message.args`: the encoded value of
/// `size` bytes at `arg`, copied once, straight into the block (a large state update is not
/// copied into the message first).
serialization::msgpack::buffer serialize(const Message& message, const uint8_t* arg,
                                         uint64_t size);

/// One more positional argument after `Message::args`, sent from where its bytes lie: `head`
/// then the `size` bytes at `data` make one encoded value. They must stay valid while the
/// message is serialized. A large result or binary argument then goes straight into its frame.
struct Trailing {
    const uint8_t* data = nullptr;
    uint64_t size = 0;
    uint8_t head[5] = {};   ///< the bin header of raw bytes; nothing for an encoded value
    uint8_t head_size = 0;  ///< bytes of `head` in use

    /// `size` bytes at `data` that are already one encoded value.
    static Trailing encoded(const uint8_t* data, uint64_t size);
    /// `size` raw bytes at `data`, sent as one bin value; "binary data too large" above
    /// 4294967295 bytes.
    static Trailing binary(const uint8_t* data, uint64_t size);
};
/// The number of bytes `message` takes with `last` after its arguments.
uint64_t serialized_size(const Message& message, const Trailing& last);
/// `serialize_into` with `last` after the message's arguments.
void serialize_into(const Message& message, const Trailing& last, uint8_t* out);

/// Element count limit used by the send path's trace text; 0 shows every element.
extern QOR_API uint64_t print_limit;

/// Text form of the one MessagePack value at `data`, trusting it to be complete.
std::string print(const uint8_t* data, uint64_t limit);
/// Same, never reading past `size` bytes: a cut value raises "unexpected end of data".
std::string print(const uint8_t* data, uint64_t size, uint64_t limit);

}  // namespace qor::wamp

#pragma pop_macro("YIELD")
#pragma pop_macro("REGISTERED")
#pragma pop_macro("ERROR")
