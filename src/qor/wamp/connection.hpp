#pragma once

namespace qor::wamp {

/// What a transport offers behind an endpoint. Both passes read what arrived, dispatch it and
/// move written bytes to the peer, without blocking.
class Connection {
  public:
    virtual ~Connection() = default;
    /// The endpoint's part of the first pass; true when it processed anything.
    virtual bool update_first() = 0;
    /// The endpoint's part of the second pass; true when it processed anything.
    virtual bool update_second() = 0;
};

}  // namespace qor::wamp
