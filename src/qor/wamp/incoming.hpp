#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/message.hpp>

namespace qor::wamp {

/// A cursor over the positional arguments that a received message keeps in `raw`,
/// bounded by the message's bytes.
serialization::msgpack::ReadBuffer args_cursor(const Message& message);

/// Typed access to the positional arguments of a received message.
class IncomingMessage {
  public:
    /// Borrows `message`, which must outlive this object.
    explicit IncomingMessage(const Message& message) : message_(message) {}

    /// Decodes exactly sizeof...(Ts) positional arguments, in order, into `values`.
    template <class... Ts>
    void fillArgsNS(Ts&... values) const;

  private:
    [[noreturn]] static void throw_count(uint64_t in_message, uint64_t expected);
    [[noreturn]] static void throw_parsing(const std::exception& cause);

    const Message& message_;
};

template <class... Ts>
void IncomingMessage::fillArgsNS(Ts&... values) const {
    if (message_.args_count != sizeof...(Ts)) throw_count(message_.args_count, sizeof...(Ts));
    try {
        serialization::msgpack::ReadBuffer in = args_cursor(message_);
        using serialization::msgpack::read;
        (read(in, values), ...);
    } catch (const std::exception& e) {
        throw_parsing(e);
    }
}

}  // namespace qor::wamp
