#pragma once

#include <string>

#include <qor/wamp/caller.hpp>
#include <qor/wamp/connection.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/session.hpp>
#include <qor/wamp/subscriber.hpp>

namespace qor::wamp {

/// One WAMP endpoint: its connection, its session, a Caller and a Subscriber sharing the
/// session. Not copyable (they point at the session). One thread at a time.
class Client {
  public:
    Connection* connection = nullptr;  ///< installed by the transport; not owned
    Session session;                   ///< the sending half
    Caller caller;                     ///< remote calls
    Subscriber subscriber;             ///< subscriptions

    /// An endpoint named `name` logging through `logger` (may be null), with no connection.
    Client(const std::string& name, spdlog::logger* logger);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Hands a received message to the Caller (RESULT, ERROR of a CALL) or the Subscriber
    /// (SUBSCRIBED, ERROR of a SUBSCRIBE, EVENT). Returns whether a handler took it; other
    /// kinds and unknown ids are logged at debug level and dropped.
    bool dispatch(const Message& message);
};

}  // namespace qor::wamp
