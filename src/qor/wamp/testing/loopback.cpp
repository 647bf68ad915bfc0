#include <qor/wamp/testing/loopback.hpp>

#include <stdexcept>
#include <utility>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/receive.hpp>

namespace qor::wamp::testing {

namespace {

// A written message parsed; CANCEL [49, request, {}], which the caller writes itself outside
// the message model, is kept as a Message of that code with its request id.
Message parse_written(const serialization::msgpack::buffer& bytes) {
    namespace mp = serialization::msgpack;
    mp::ReadBuffer in(bytes);
    uint64_t request = 0;
    try {
        long long code = 0;
        if (mp::read_array_header(in) == 3) mp::read(in, code);
        if (code == 49) mp::read(in, request);
    } catch (const std::runtime_error&) {
        request = 0;  // malformed: parse_message gives its own error
    }
    if (request == 0) return parse_message(bytes);
    Message cancel(49);
    cancel.request = Id(request);
    return cancel;
}

}  // namespace

LoopbackConnection::LoopbackConnection(Client& client) : client_(client) {
    client_.connection = this;
    client_.session.write = [this](const uint8_t* data, uint64_t size) {
        serialization::msgpack::buffer bytes(data, size);
        // Parsing what the endpoint writes makes a malformed outgoing message fail at send.
        written.push_back(parse_written(bytes));
        written_bytes.push_back(std::move(bytes));
    };
}

LoopbackConnection::~LoopbackConnection() {
    if (client_.connection == this) client_.connection = nullptr;
    client_.session.write = nullptr;
}

bool LoopbackConnection::deliver() {
    // Only what was queued before the pass is delivered: a handler that answers by injecting
    // again is served in a later pass, as with a real peer.
    uint64_t count = queue_.size();
    bool any = false;
    while (count-- > 0 && !queue_.empty()) {
        serialization::msgpack::buffer bytes = std::move(queue_.front());
        // Taken off the queue before handling, so an error leaves the rest deliverable.
        queue_.pop_front();
        any = true;
        client_.dispatch(parse_message(std::move(bytes)));
    }
    return any;
}

bool LoopbackConnection::update_first() {
    ++first_passes;
    if (before_first) before_first();
    const bool delivered = deliver_in == Pass::first && deliver();
    return delivered || always_busy;
}

bool LoopbackConnection::update_second() {
    ++second_passes;
    if (before_second) before_second();
    const bool delivered = deliver_in == Pass::second && deliver();
    return delivered || always_busy;
}

void LoopbackConnection::clear_written() {
    written.clear();
    written_bytes.clear();
}

const Message& LoopbackConnection::last_written() const {
    if (written.empty()) throw std::runtime_error("LoopbackConnection: nothing was written");
    return written.back();
}

const Message& LoopbackConnection::last_call() const {
    for (auto it = written.rbegin(); it != written.rend(); ++it) {
        if (it->type == CALL) return *it;
    }
    throw std::runtime_error("LoopbackConnection: no CALL was written");
}

std::vector<Message> LoopbackConnection::calls() const {
    std::vector<Message> found;
    for (const Message& m : written) {
        if (m.type == CALL) found.push_back(m);
    }
    return found;
}

const Message& LoopbackConnection::last_subscribe(const std::string& topic) const {
    for (auto it = written.rbegin(); it != written.rend(); ++it) {
        if (it->type == SUBSCRIBE && it->topic == topic) return *it;
    }
    throw std::runtime_error("LoopbackConnection: no SUBSCRIBE was written for this topic");
}

void LoopbackConnection::inject(const uint8_t* data, uint64_t size) {
    queue_.emplace_back(data, size);
}

void LoopbackConnection::inject(serialization::msgpack::buffer bytes) {
    queue_.push_back(std::move(bytes));
}

void LoopbackConnection::inject(const Message& message) {
    queue_.push_back(serialize(message));
}

void LoopbackConnection::reply(uint32_t type, Id id,
                               std::vector<serialization::msgpack::buffer> args) {
    Message m(type);
    if (type == EVENT) {
        m.subscription = id;
        m.publication = Id(next_publication_++);
    } else {
        m.request = id;
    }
    m.args = std::move(args);
    inject(m);
}

void LoopbackConnection::reply_error(Id request, const std::string& uri) {
    Message m(ERROR);
    m.request_type = static_cast<int32_t>(CALL);
    m.request = request;
    m.error = uri;
    inject(m);
}

void LoopbackConnection::confirm_subscription(const std::string& topic, Id subscription) {
    Message m(SUBSCRIBED);
    m.request = last_subscribe(topic).request;
    m.subscription = subscription;
    inject(m);
}

void LoopbackConnection::refuse_subscription(const std::string& topic, const std::string& uri) {
    Message m(ERROR);
    m.request_type = static_cast<int32_t>(SUBSCRIBE);
    m.request = last_subscribe(topic).request;
    m.error = uri;
    inject(m);
}

}  // namespace qor::wamp::testing
