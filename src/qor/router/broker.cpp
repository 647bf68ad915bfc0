#include <qor/router/broker.hpp>

#include <exception>
#include <iterator>
#include <string>
#include <utility>

#include <spdlog/spdlog.h>

#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>

namespace qor::router {

namespace mp = serialization::msgpack;

Answer Answer::result(mp::buffer value) {
    Answer a;
    a.args.push_back(std::move(value));
    return a;
}

Answer Answer::result(std::vector<uint8_t>&& value) {
    Answer a;
    a.last = std::move(value);
    return a;
}

Answer Answer::failure(std::string uri, const std::string& text) {
    Answer a;
    a.error = std::move(uri);
    std::vector<uint8_t> packed;
    mp::pack(packed, text);
    a.args.emplace_back(packed);
    return a;
}

Broker::Broker(Server& server, Dealer dealer, BrokerOptions options)
    : server_(server), dealer_(std::move(dealer)), options_(std::move(options)) {
    if (options_.call_worker) worker_ = std::thread([this] { work(); });
}

Broker::~Broker() {
    {
        std::lock_guard<std::mutex> lock(work_mutex_);
        stopping_ = true;
    }
    work_cv_.notify_all();
    if (worker_.joinable()) worker_.join();
}

template <class Message>
void Broker::call(uint64_t session, Message&& m) {
    {
        std::lock_guard<std::mutex> lock(work_mutex_);
        if (closing_)
            return send_error(session, wamp::CALL, m.request, "wamp.error.canceled",
                              "the server is shutting down");
        if (options_.call_worker && (!options_.quick || busy_ || !calls_.empty())) {
            // A client that floods calls faster than they run must not grow the queue
            // without bound.
            if (calls_.size() >= options_.max_queued_calls)
                return send_error(session, wamp::CALL, m.request, "wamp.error.canceled",
                                  "too many calls waiting");
            calls_.push_back({session, std::forward<Message>(m)});
            work_cv_.notify_one();
            return;
        }
        // Only this thread queues calls, so none can overtake this one while it runs here;
        // `busy_` keeps `drain` waiting until its answer is queued.
        busy_ = options_.call_worker;
    }
    if (!options_.call_worker) return answer(session, m);
    bool answered = true;
    std::optional<Answer> a;
    try {
        answered = options_.quick(session, m, a);
    } catch (const std::exception& e) {
        a = Answer::failure("wamp.error.runtime_error", e.what());
    }
    if (answered) reply(session, m, std::move(a));
    std::lock_guard<std::mutex> lock(work_mutex_);
    busy_ = false;
    if (!answered) {
        calls_.push_back({session, std::forward<Message>(m)});
        work_cv_.notify_one();
    } else if (calls_.empty()) {
        idle_cv_.notify_all();
    }
}

void Broker::on_message(uint64_t session, wamp::Message&& m) {
    if (m.type == wamp::CALL) return call(session, std::move(m));
    on_message(session, static_cast<const wamp::Message&>(m));
}

void Broker::on_message(uint64_t session, const wamp::Message& m) {
    switch (m.type) {
        case wamp::CALL:
            return call(session, m);
        case wamp::SUBSCRIBE:
            return subscribe(session, m);
        case wamp::UNSUBSCRIBE:
            return unsubscribe(session, m);
        case wamp::PUBLISH:
            return publish_from(session, m);
        case wamp::REGISTER:
        case wamp::UNREGISTER:
            return send_error(session, m.type, m.request, "wamp.error.not_authorized",
                              "this server accepts no registrations");
        default:
            if (options_.logger)
                options_.logger->debug("session {}: ignored {}", session, wamp::type_name(m.type));
    }
}

void Broker::drain() {
    std::unique_lock<std::mutex> lock(work_mutex_);
    closing_ = true;
    idle_cv_.wait(lock, [this] { return calls_.empty() && !busy_; });
}

void Broker::on_leave(uint64_t session) {
    std::lock_guard<std::mutex> lock(topics_mutex_);
    for (auto s = subscriptions_.begin(); s != subscriptions_.end();) {
        s->second.sessions.erase(session);
        s = s->second.sessions.empty() ? forget_subscription(s) : std::next(s);
    }
}

// A topic nobody listens to any more is forgotten, so that sessions subscribing to ever new
// topics leave nothing behind when they go. Called with `topics_mutex_` held.
std::map<uint64_t, Broker::Subscription>::iterator Broker::forget_subscription(
    std::map<uint64_t, Subscription>::iterator s) {
    topic_ids_.erase(s->second.topic);
    return subscriptions_.erase(s);
}

size_t Broker::topics() const {
    std::lock_guard<std::mutex> lock(topics_mutex_);
    return topic_ids_.size();
}

std::vector<uint64_t> Broker::subscribers(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(topics_mutex_);
    auto t = topic_ids_.find(topic);
    if (t == topic_ids_.end()) return {};
    const auto& sessions = subscriptions_.at(t->second).sessions;
    return {sessions.begin(), sessions.end()};
}

size_t Broker::publish(const std::string& topic, const std::vector<uint8_t>& value,
                       uint64_t except) {
    std::vector<uint64_t> targets;
    wamp::Message event(wamp::EVENT);
    {
        std::lock_guard<std::mutex> lock(topics_mutex_);
        auto t = topic_ids_.find(topic);
        if (t == topic_ids_.end()) return 0;
        for (uint64_t s : subscriptions_.at(t->second).sessions)
            if (s != except) targets.push_back(s);
        if (targets.empty()) return 0;
        event.subscription = wamp::Id(t->second);
        event.publication =
            wamp::Id(std::uniform_int_distribution<uint64_t>(1, wamp::max_id)(random_));
    }
    return server_.send_encoded(targets, wamp::serialize(event, value.data(), value.size()));
}

void Broker::work() {
    std::unique_lock<std::mutex> lock(work_mutex_);
    for (;;) {
        work_cv_.wait(lock, [this] { return stopping_ || !calls_.empty(); });
        if (calls_.empty()) return;
        PendingCall call = std::move(calls_.front());
        calls_.pop_front();
        busy_ = true;
        lock.unlock();
        answer(call.session, call.message);
        lock.lock();
        busy_ = false;
        if (calls_.empty()) idle_cv_.notify_all();
    }
}

void Broker::answer(uint64_t session, const wamp::Message& m) {
    std::optional<Answer> a;
    try {
        a = dealer_(session, m);
    } catch (const std::exception& e) {
        // A procedure that throws answers like one that fails; the session goes on.
        a = Answer::failure("wamp.error.runtime_error", e.what());
    }
    reply(session, m, std::move(a));
}

void Broker::reply(uint64_t session, const wamp::Message& m, std::optional<Answer> a) {
    if (!a) return;
    wamp::Message reply(a->error.empty() ? wamp::RESULT : wamp::ERROR);
    reply.request = m.request;
    if (!a->error.empty()) {
        reply.request_type = static_cast<int32_t>(wamp::CALL);
        reply.error = std::move(a->error);
    }
    reply.args = std::move(a->args);
    const bool last = !a->last.empty();
    const uint64_t size =
        last ? wamp::serialized_size(reply, wamp::Trailing::encoded(a->last.data(), a->last.size()))
             : wamp::serialized_size(reply);
    const size_t limit = server_.max_send(session);
    if (limit != 0 && size > limit) {
        // Sent, it would be dropped (the caller then waits out its time-out) or end the link.
        return send_error(session, wamp::CALL, m.request, "wamp.error.payload_size_exceeded",
                          "the answer of " + std::to_string(size) +
                              " bytes is larger than the " + std::to_string(limit) +
                              " bytes the client accepts");
    }
    // A client that left while its call ran is simply gone; nothing else is affected.
    const bool sent = last ? server_.send(session, std::move(reply), std::move(a->last))
                           : server_.send_encoded(session, wamp::serialize(reply));
    if (!sent && options_.logger)
        options_.logger->debug("session {} left before its result", session);
}

void Broker::send_error(uint64_t session, uint32_t request_type, wamp::Id request,
                        const std::string& uri, const std::string& text) {
    wamp::Message e(wamp::ERROR);
    e.request_type = static_cast<int32_t>(request_type);
    e.request = request;
    e.error = uri;
    std::vector<uint8_t> t;
    mp::pack(t, text);
    e.args.emplace_back(t);
    server_.send(session, e);
}

void Broker::subscribe(uint64_t session, const wamp::Message& m) {
    try {
        wamp::check_topic(m.topic);
    } catch (const std::exception& e) {
        return send_error(session, wamp::SUBSCRIBE, m.request, "wamp.error.invalid_uri", e.what());
    }
    wamp::Message ok(wamp::SUBSCRIBED);
    ok.request = m.request;
    {
        std::lock_guard<std::mutex> lock(topics_mutex_);
        auto t = topic_ids_.find(m.topic);
        if (t == topic_ids_.end()) {
            t = topic_ids_.emplace(m.topic, next_subscription_++).first;
            subscriptions_[t->second].topic = m.topic;
        }
        subscriptions_[t->second].sessions.insert(session);
        ok.subscription = wamp::Id(t->second);
    }
    server_.send(session, ok);
}

void Broker::unsubscribe(uint64_t session, const wamp::Message& m) {
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(topics_mutex_);
        auto s = subscriptions_.find(m.subscription.value());
        known = s != subscriptions_.end() && s->second.sessions.erase(session) > 0;
        if (known && s->second.sessions.empty()) forget_subscription(s);
    }
    if (!known)
        return send_error(session, wamp::UNSUBSCRIBE, m.request, "wamp.error.no_such_subscription",
                          "not subscribed");
    wamp::Message ok(wamp::UNSUBSCRIBED);
    ok.request = m.request;
    server_.send(session, ok);
}

// Clients may publish to each other too (a plain broker); the publisher gets no copy.
void Broker::publish_from(uint64_t session, const wamp::Message& m) {
    auto ack = m.details.find("acknowledge");
    const bool acknowledge =
        ack != m.details.end() && ack->second.size == 1 && ack->second.data[0] == 0xc3;
    if (options_.server_owned && options_.server_owned(m.topic)) {
        // Relayed, it would reach every subscriber as if the server had said it.
        if (options_.logger)
            options_.logger->warn("session {}: refused PUBLISH to server topic '{}'", session,
                                  m.topic);
        if (acknowledge)
            send_error(session, wamp::PUBLISH, m.request, "wamp.error.not_authorized",
                       "topic '" + m.topic + "' is published by the server only");
        return;
    }
    if (m.args_count == 1) {
        std::vector<uint8_t> value(m.raw.data + m.args_offset, m.raw.data + m.args_end);
        publish(m.topic, value, session);
    }
    if (acknowledge) {
        wamp::Message ok(wamp::PUBLISHED);
        ok.request = m.request;
        ok.publication = next_publication();
        server_.send(session, ok);
    }
}

wamp::Id Broker::next_publication() {
    std::lock_guard<std::mutex> lock(topics_mutex_);
    return wamp::Id(std::uniform_int_distribution<uint64_t>(1, wamp::max_id)(random_));
}

}  // namespace qor::router
