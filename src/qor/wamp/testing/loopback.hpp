#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp/client.hpp>
#include <qor/wamp/connection.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/rpc.hpp>

namespace qor::wamp::testing {

/// An in-memory connection for tests: it records what its endpoint writes and delivers what
/// the test injects, as a router would, through parse and dispatch inside a pump pass.
/// Attaching installs the endpoint's `connection` and `session.write`; destruction detaches.
///
/// Threading: the pumping thread only, like the endpoint it serves; it never blocks.
class LoopbackConnection : public Connection {
  public:
    /// The pass that delivers injected messages.
    enum class Pass { first, second };

    /// Attaches to `client`, which must outlive this connection.
    explicit LoopbackConnection(Client& client);
    ~LoopbackConnection() override;
    LoopbackConnection(const LoopbackConnection&) = delete;
    LoopbackConnection& operator=(const LoopbackConnection&) = delete;

    /// Runs `before_first`, then delivers when `deliver_in` is first; true when it delivered
    /// anything or `always_busy` is set.
    bool update_first() override;
    /// Runs `before_second`, then delivers when `deliver_in` is second.
    bool update_second() override;

    Pass deliver_in = Pass::first;        ///< which pass delivers injected messages
    bool always_busy = false;             ///< report work even when nothing was delivered
    uint64_t first_passes = 0;            ///< update_first calls so far
    uint64_t second_passes = 0;           ///< update_second calls so far
    std::function<void()> before_first;   ///< runs at the start of each first pass
    std::function<void()> before_second;  ///< runs at the start of each second pass

    /// Every message written by the endpoint, as bytes, in order.
    std::vector<serialization::msgpack::buffer> written_bytes;
    /// The same messages, parsed.
    std::vector<Message> written;
    /// Forgets what was written.
    void clear_written();
    /// The last message written; throws when nothing was written.
    const Message& last_written() const;
    /// The last CALL written; throws when none was.
    const Message& last_call() const;
    /// Every CALL written, in order.
    std::vector<Message> calls() const;

    /// Queues encoded bytes for delivery in the next delivering pass (parse errors surface there).
    void inject(const uint8_t* data, uint64_t size);
    /// Queues an encoded message.
    void inject(serialization::msgpack::buffer bytes);
    /// Queues an encoded message held in a byte vector.
    void inject(const std::vector<uint8_t>& bytes) { inject(bytes.data(), bytes.size()); }
    /// Queues a message, serialized now.
    void inject(const Message& message);
    /// Messages queued and not yet delivered.
    uint64_t queued() const { return queue_.size(); }

    /// Queues RESULT [50, request, {}, [args...]] (no argument list when `args` is empty).
    template <class... Args>
    void reply_result(Id request, const Args&... args);
    /// Answers the last CALL with a RESULT.
    template <class... Args>
    void reply_last_result(const Args&... args) {
        reply_result(last_call().request, args...);
    }
    /// Queues ERROR [8, 48, request, {}, uri].
    void reply_error(Id request, const std::string& uri);
    /// Answers the last CALL with an ERROR.
    void reply_last_error(const std::string& uri) { reply_error(last_call().request, uri); }

    /// Queues SUBSCRIBED for the last SUBSCRIBE written for `topic`; throws if there is none.
    void confirm_subscription(const std::string& topic, Id subscription);
    /// Queues ERROR [8, 32, request, {}, uri] for the last SUBSCRIBE written for `topic`.
    void refuse_subscription(const std::string& topic, const std::string& uri);
    /// Queues EVENT [36, subscription, publication, {}, [args...]].
    template <class... Args>
    void publish_event(Id subscription, const Args&... args);

  private:
    template <class... Args>
    std::vector<serialization::msgpack::buffer> encode(const Args&... args) {
        std::vector<serialization::msgpack::buffer> encoded;
        encoded.reserve(sizeof...(Args));
        (encoded.push_back(encode_argument(scratch_, args)), ...);
        return encoded;
    }
    void reply(uint32_t type, Id id, std::vector<serialization::msgpack::buffer> args);
    const Message& last_subscribe(const std::string& topic) const;
    bool deliver();

    Client& client_;
    std::deque<serialization::msgpack::buffer> queue_;
    std::vector<uint8_t> scratch_;
    uint64_t next_publication_ = 1;
};

template <class... Args>
void LoopbackConnection::reply_result(Id request, const Args&... args) {
    reply(RESULT, request, encode(args...));
}

template <class... Args>
void LoopbackConnection::publish_event(Id subscription, const Args&... args) {
    reply(EVENT, subscription, encode(args...));
}

}  // namespace qor::wamp::testing
