#pragma once

namespace qor::wamp {

/// The error every call pending on an endpoint completes with when its transport loses the
/// link, and the text `DaxClient::sync_step` throws once the server endpoint is gone.
inline constexpr const char* CONNECTION_LOST = "qor.error.connection_lost";

/// What a transport offers behind an endpoint. Both passes read what arrived, dispatch it and
/// move written bytes to the peer, without blocking.
///
/// Threading: called on the pumping thread only, and never blocks.
class Connection {
  public:
    virtual ~Connection() = default;
    /// The endpoint's part of the first pass; true when it processed anything.
    virtual bool update_first() = 0;
    /// The endpoint's part of the second pass; true when it processed anything.
    virtual bool update_second() = 0;
};

}  // namespace qor::wamp
