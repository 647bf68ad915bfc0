#pragma once

#include <chrono>

namespace qor::wamp {

/// The error every call pending on an endpoint completes with when its transport loses the
/// link, and the text `DaxClient::sync_step` throws once the server endpoint is gone.
inline constexpr const char* CONNECTION_LOST = "qor.error.connection_lost";

/// What a transport offers behind an endpoint. Both passes read what arrived, dispatch it and
/// move written bytes to the peer, without blocking.
///
/// Threading: called on the pumping thread only; nothing but `wait` blocks.
class Connection {
  public:
    virtual ~Connection() = default;
    /// The endpoint's part of the first pass; true when it processed anything.
    virtual bool update_first() = 0;
    /// The endpoint's part of the second pass; true when it processed anything.
    virtual bool update_second() = 0;
    /// Sleeps in the OS until the next pass has something to do (a message, the end of the
    /// link, a due keepalive or reconnection) or `timeout` passes; true when woken by work.
    /// One that has nothing to sleep on returns false at once, which is the default.
    virtual bool wait(std::chrono::nanoseconds timeout) {
        (void)timeout;
        return false;
    }
};

}  // namespace qor::wamp
