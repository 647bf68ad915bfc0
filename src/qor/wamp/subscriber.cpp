#include <qor/wamp/subscriber.hpp>

#include <optional>
#include <vector>

#include <spdlog/logger.h>

namespace qor::wamp {

namespace {

// Takes the topic that a SUBSCRIBED or a SUBSCRIBE error answers out of the pending requests;
// nothing (and a debug line naming `what`) for an answer to no request of ours.
std::optional<std::string> take_pending(std::map<Id, std::string>& pending, const Message& answer,
                                        spdlog::logger* logger, const std::string& name,
                                        const char* what) {
    auto request = pending.find(answer.request);
    if (request == pending.end()) {
        if (logger != nullptr) {
            logger->debug("[{}] dropping {} for unknown request {}", name, what,
                          answer.request.value());
        }
        return std::nullopt;
    }
    std::string topic = std::move(request->second);
    pending.erase(request);
    return topic;
}

}  // namespace

uint64_t Subscriber::subscribe(const std::string& topic,
                               std::function<void(const Message&)> on_event,
                               std::function<void(bool, std::string)> on_subscribed) {
    if (logger != nullptr) logger->debug("[{}] SUBSCRIBE to '{}'", name, topic);
    const uint64_t id = next_handler_id++;
    handlers[id] = HandlerEntry{topic, std::move(on_event), on_subscribed};

    auto known = topics.find(topic);
    if (known != topics.end()) {
        // One SUBSCRIBE serves every handler; a pending topic tells this one with the others.
        const TopicEntry& entry = known->second;
        if (on_subscribed && entry.state != 0) on_subscribed(entry.state == 1, entry.error);
    } else {
        topics[topic] = TopicEntry{};
        // The handler id doubles as the request id. The entries above stay behind when the
        // topic rule refuses the topic: that is the established behaviour.
        pending_requests[Id(id)] = topic;
        session->send(Message(SUBSCRIBE, Id(id), topic));
    }
    topics[topic].handler_ids.insert(id);
    return id;
}

void Subscriber::notify(const std::string& topic, bool ok, const std::string& text) {
    // A status callback may subscribe more handlers; those were told at once and are not in
    // this snapshot.
    const std::set<uint64_t> ids = topics[topic].handler_ids;
    for (uint64_t id : ids) {
        auto handler = handlers.find(id);
        if (handler == handlers.end() || !handler->second.on_subscribed) continue;
        // Entries are never erased and map inserts keep references valid.
        handler->second.on_subscribed(ok, text);
    }
}

bool Subscriber::handle_subscribed(const Message& answer) {
    const std::optional<std::string> pending =
        take_pending(pending_requests, answer, logger, name, "SUBSCRIBED");
    if (!pending) return false;
    const std::string& topic = *pending;
    TopicEntry& entry = topics[topic];
    entry.state = 1;
    entry.subscription = answer.subscription;
    entry.error.clear();
    if (logger != nullptr) {
        logger->debug("[{}] subscribed to '{}' as {}", name, topic, answer.subscription.value());
    }
    notify(topic, true, std::string());
    return true;
}

bool Subscriber::handle_error(const Message& answer) {
    const std::optional<std::string> pending =
        take_pending(pending_requests, answer, logger, name, "SUBSCRIBE error");
    if (!pending) return false;
    const std::string& topic = *pending;
    TopicEntry& entry = topics[topic];
    entry.state = 2;
    entry.error = answer.error;
    if (logger != nullptr) {
        logger->debug("[{}] subscription to '{}' failed: {}", name, topic, answer.error);
    }
    const std::string text = entry.error;
    notify(topic, false, text);
    return true;
}

bool Subscriber::handle_event(const Message& event) {
    // Only a confirmed topic matches: a pending topic still holds its placeholder id.
    const std::string* topic = nullptr;
    for (const auto& [name_of_topic, entry] : topics) {
        if (entry.state == 1 && entry.subscription == event.subscription) {
            topic = &name_of_topic;
            break;
        }
    }
    if (topic == nullptr) {
        if (logger != nullptr) {
            logger->debug("[{}] dropping EVENT for unknown subscription {}", name,
                          event.subscription.value());
        }
        return false;
    }
    // Handlers may subscribe more handlers while running; iterate over a snapshot.
    const std::set<uint64_t> ids = topics[*topic].handler_ids;
    for (uint64_t id : ids) {
        auto handler = handlers.find(id);
        if (handler == handlers.end()) continue;
        handler->second.on_event(event);
    }
    return true;
}

void Subscriber::resubscribe() {
    pending_requests.clear();
    std::vector<std::string> again;
    for (auto& [topic, entry] : topics) {
        // A topic refused by the topic rule has no handler and is never sent again.
        if (entry.handler_ids.empty()) continue;
        entry.state = 0;
        entry.subscription = Id(1);
        entry.error.clear();
        pending_requests[Id(*entry.handler_ids.begin())] = topic;
        again.push_back(topic);
    }
    for (const std::string& topic : again) {
        if (logger != nullptr) logger->debug("[{}] SUBSCRIBE to '{}'", name, topic);
        session->send(Message(SUBSCRIBE, Id(*topics[topic].handler_ids.begin()), topic));
    }
}

}  // namespace qor::wamp
