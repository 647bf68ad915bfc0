#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

#include <qor/wamp/id.hpp>
#include <qor/wamp/incoming.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/session.hpp>

namespace qor::wamp {

/// One registered event handler.
struct HandlerEntry {
    std::string topic;                                     ///< the topic it listens to
    std::function<void(const Message&)> on_event;          ///< called with each EVENT of the topic
    std::function<void(bool, std::string)> on_subscribed;  ///< subscription outcome; may be empty
};

/// One topic of an endpoint.
struct TopicEntry {
    uint32_t state = 0;              ///< 0 pending, 1 subscribed, anything else failed
    Id subscription{1};              ///< the router's subscription id once subscribed
    std::string error;               ///< the failure text; empty otherwise
    std::set<uint64_t> handler_ids;  ///< handlers of the topic, in id order
};

/// The subscription side of an endpoint: one SUBSCRIBE per topic, many handlers per topic.
/// Answers and events are handed in by the receive side; callbacks run inside the pump.
/// One thread at a time.
class Subscriber {
  public:
    Session* session;  ///< the endpoint's session, through which SUBSCRIBEs go
    std::map<uint64_t, HandlerEntry> handlers;   ///< every handler ever registered
    std::map<std::string, TopicEntry> topics;    ///< every topic ever subscribed
    std::map<Id, std::string> pending_requests;  ///< SUBSCRIBE request id to topic, unanswered
    uint64_t next_handler_id = 1;      ///< id of the next handler, also its SUBSCRIBE request id
    spdlog::logger* logger = nullptr;  ///< may be null
    std::string name;                  ///< shown in log lines

    /// A subscriber sending through `owner`.
    explicit Subscriber(Session* owner) : session(owner) {}

    /// Registers a handler and returns its id; sends SUBSCRIBE only for a new topic, and
    /// reports an already answered topic's outcome to `on_subscribed` at once.
    uint64_t subscribe(const std::string& topic, std::function<void(const Message&)> on_event,
                       std::function<void(bool, std::string)> on_subscribed);

    /// Typed front: each EVENT must carry exactly one argument that decodes as T.
    template <class T>
    uint64_t subscribe(const std::string& topic, const std::function<void(T)>& handler,
                       const std::function<void(bool, std::string)>& on_subscribed);

    /// SUBSCRIBED: marks the topic subscribed and tells its handlers.
    bool handle_subscribed(const Message& answer);
    /// ERROR answering a SUBSCRIBE: marks the topic failed and tells its handlers.
    bool handle_error(const Message& answer);
    /// EVENT: runs the handlers of the confirmed topic with that subscription id, in id order.
    bool handle_event(const Message& event);

    /// After a new session: every topic with handlers goes back to pending and is subscribed
    /// again (one SUBSCRIBE each, request id its first handler id); handlers are kept.
    void resubscribe();

  private:
    void notify(const std::string& topic, bool ok, const std::string& text);
};

template <class T>
uint64_t Subscriber::subscribe(const std::string& topic, const std::function<void(T)>& handler,
                               const std::function<void(bool, std::string)>& on_subscribed) {
    return subscribe(
        topic,
        [handler](const Message& event) {
            std::decay_t<T> value{};
            IncomingMessage(event).fillArgsNS(value);
            handler(std::move(value));
        },
        on_subscribed);
}

}  // namespace qor::wamp
