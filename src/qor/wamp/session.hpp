#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <qor/wamp/message.hpp>

namespace spdlog {
class logger;
}

namespace qor::wamp {

/// The sending half of an endpoint: encodes, traces and writes each message at once.
/// Used from one thread at a time.
class Session {
  public:
    std::string name;                  ///< endpoint name shown in log lines
    spdlog::logger* logger = nullptr;  ///< may be null
    /// Installed by the connection; the bytes are valid only during the call.
    std::function<void(const uint8_t*, uint64_t)> write;
    /// Optional, installed by a connection that frames messages in its outgoing queue: takes a
    /// message of `size` bytes that `fill` writes straight into the frame, so a large argument
    /// is not copied once more on its way out. False when it does not take it (no link): the
    /// message then goes to `write`, which decides what becomes of it.
    std::function<bool(uint64_t size, const std::function<void(uint8_t*)>& fill)> write_in_place;

    /// Serializes, logs "[{name} WAMP Out] {text}" when trace is on, then writes.
    void send(const Message& message) const;
    /// The same with `last` after the message's arguments, written from where it lies.
    void send(const Message& message, const Trailing& last) const;

  private:
    void send(const Message& message, const Trailing* last) const;
};

}  // namespace qor::wamp
