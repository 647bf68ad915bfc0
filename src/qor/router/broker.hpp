#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp/message.hpp>

namespace spdlog {
class logger;
}

namespace qor::router {

class Server;

/// What a procedure answers: RESULT with `args`, or, when `error` is set, ERROR with that URI
/// and `args`.
struct Answer {
    std::string error;                                 ///< empty: the call succeeded
    std::vector<serialization::msgpack::buffer> args;  ///< one encoded value each
    /// One more encoded value after `args` when not empty, written from here straight into the
    /// outgoing frame: a result of megabytes is not copied on its way.
    std::vector<uint8_t> last;

    /// RESULT with one encoded value.
    static Answer result(serialization::msgpack::buffer value);
    /// RESULT with one encoded value, taken as it is.
    static Answer result(std::vector<uint8_t>&& value);
    /// ERROR `uri` with one string argument, `text`.
    static Answer failure(std::string uri, const std::string& text = {});
};

/// Settings of a `Broker`.
struct BrokerOptions {
    /// True: calls run one at a time on the broker's own worker thread, so a slow procedure
    /// never stalls the network. False: they run at once on the server's I/O thread.
    bool call_worker = true;
    /// Optional, with `call_worker`: tried first on the I/O thread for a call that finds no
    /// other call waiting or running. It answers as the dealer would and returns true, or
    /// returns false having done nothing, and the call goes to the worker. Spares quick
    /// procedures two thread hand-offs; it must never block.
    std::function<bool(uint64_t session, const wamp::Message& call, std::optional<Answer>& answer)>
        quick;
    /// Calls waiting beyond this many are refused with "wamp.error.canceled".
    size_t max_queued_calls = 100000;
    std::shared_ptr<spdlog::logger> logger;  ///< may be null: nothing is logged
    /// Topics only the router's side publishes to (state, device frames): a client's PUBLISH
    /// to one is dropped and, when it asked for an acknowledgement, answered with ERROR
    /// "wamp.error.not_authorized". Null: clients may publish to any topic.
    std::function<bool(const std::string& topic)> server_owned;
};

/// The broker and dealer half of the router, on top of a `Server`: subscriptions per topic,
/// events encoded once for all their subscribers, client-to-client PUBLISH (except to the
/// topics the router's side owns), and CALLs handed
/// to one dealer function. Registrations are refused: the router offers its own procedures.
///
/// Threading: `on_message` and `on_leave` are for the server's I/O thread (wire them to the
/// server's handlers); `publish`, `drain` and `subscribers` may be called from any thread.
/// The dealer runs on the worker thread or the I/O thread, as `BrokerOptions::call_worker`
/// says, one call at a time. Destroy the broker after the server has stopped or before it
/// starts, never while its handlers may still run.
class Broker {
  public:
    /// Answers one CALL; `std::nullopt` leaves it unanswered.
    using Dealer =
        std::function<std::optional<Answer>(uint64_t session, const wamp::Message& call)>;

    /// A broker that sends through `server`, which must outlive it.
    Broker(Server& server, Dealer dealer, BrokerOptions options = {});
    /// Answers the calls still waiting, then joins the worker.
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// Routes one message of a joined session.
    void on_message(uint64_t session, const wamp::Message& message);
    /// Same, taking the message: a CALL queued for the worker is moved there, not copied.
    void on_message(uint64_t session, wamp::Message&& message);
    /// Forgets the subscriptions of a session that left.
    void on_leave(uint64_t session);
    /// One EVENT with the single encoded argument `value`, encoded once, to every subscriber
    /// of `topic` except the session `except`; returns how many sessions it was sent to.
    size_t publish(const std::string& topic, const std::vector<uint8_t>& value,
                   uint64_t except = 0);
    /// Answers every call already received, refuses later ones ("wamp.error.canceled"), and
    /// returns once the last answer is queued: a call's own RESULT leaves before a GOODBYE
    /// sent next.
    void drain();
    /// The sessions subscribed to `topic` now.
    std::vector<uint64_t> subscribers(const std::string& topic) const;
    /// The topics with at least one subscriber now (a topic is forgotten with its last one).
    size_t topics() const;

  private:
    struct Subscription {
        std::string topic;
        std::set<uint64_t> sessions;
    };
    struct PendingCall {
        uint64_t session;
        wamp::Message message;
    };

    // `Message` is const wamp::Message& or wamp::Message (taken).
    template <class Message>
    void call(uint64_t session, Message&& message);
    void work();
    void answer(uint64_t session, const wamp::Message& message);
    void reply(uint64_t session, const wamp::Message& message, std::optional<Answer> answer);
    void send_error(uint64_t session, uint32_t request_type, wamp::Id request,
                    const std::string& uri, const std::string& text);
    std::map<uint64_t, Subscription>::iterator forget_subscription(
        std::map<uint64_t, Subscription>::iterator subscription);
    void subscribe(uint64_t session, const wamp::Message& message);
    void unsubscribe(uint64_t session, const wamp::Message& message);
    void publish_from(uint64_t session, const wamp::Message& message);
    wamp::Id next_publication();

    Server& server_;
    Dealer dealer_;
    BrokerOptions options_;

    mutable std::mutex topics_mutex_;
    std::map<std::string, uint64_t> topic_ids_;
    std::map<uint64_t, Subscription> subscriptions_;
    uint64_t next_subscription_ = 1;
    std::mt19937_64 random_{std::random_device{}()};

    std::mutex work_mutex_;
    std::condition_variable work_cv_;
    std::condition_variable idle_cv_;
    std::deque<PendingCall> calls_;
    bool busy_ = false;     // a call is being answered
    bool closing_ = false;  // draining: no new calls
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace qor::router
