#include <qor/wamp/caller.hpp>

#include <spdlog/logger.h>

#include <qor/serialization/msgpack/pack.hpp>

namespace qor::wamp {

Id Caller::register_call(std::function<void(const Message&)> handler) {
    const Id request = Id::Random();
    last_request = request.value();
    pending.insert_or_assign(request.value(), std::move(handler));
    return request;
}

void Caller::send_call(Id request, const std::string& procedure,
                       std::vector<serialization::msgpack::buffer> args, const Trailing* last) {
    if (logger != nullptr) logger->trace("[{}] CALL procedure '{}'", name, procedure);
    Message message(CALL, request, procedure);
    message.args = std::move(args);
    try {
        if (last)
            session->send(message, *last);
        else
            session->send(message);
    } catch (...) {
        // The caller sees the failure as an exception; a handler left behind would fire a
        // second time on a later fail_all.
        pending.erase(request.value());
        throw;
    }
    if (call_limit.count() > 0)
        deadlines[request.value()] = std::chrono::steady_clock::now() + call_limit;
}

bool Caller::handle(const Message& answer) {
    deadlines.erase(answer.request.value());
    auto found = pending.find(answer.request.value());
    if (found == pending.end()) {
        if (logger != nullptr) {
            logger->debug("[{}] dropping {} for unknown request {}", name, type_name(answer.type),
                          answer.request.value());
        }
        return false;
    }
    // Removed before it runs, so a handler that throws or calls again cannot leave it behind.
    auto handler = std::move(found->second);
    pending.erase(found);
    handler(answer);
    return true;
}

void Caller::fail_all(const std::string& error) {
    std::vector<uint64_t> requests;
    requests.reserve(pending.size());
    for (const auto& entry : pending) requests.push_back(entry.first);

    Message failure(ERROR);
    failure.request_type = static_cast<int32_t>(CALL);
    failure.error = error;
    for (uint64_t request : requests) {
        // A handler may already have completed others, for instance by failing them itself.
        if (pending.count(request) == 0) continue;
        failure.request = Id(request);
        handle(failure);
    }
}

}  // namespace qor::wamp

namespace qor::wamp {

namespace {

// CANCEL [49, request, {}]. The message model keeps to the codes a client handles, so the
// three elements are written here.
void send_cancel(const Session& session, uint64_t request) {
    if (!session.write) return;
    std::vector<uint8_t> bytes{0x93, 49};
    serialization::msgpack::pack(bytes, request);
    bytes.push_back(0x80);
    session.write(bytes.data(), bytes.size());
}

}  // namespace

bool Caller::expire(std::chrono::steady_clock::time_point now) {
    if (deadlines.empty()) return false;
    std::vector<uint64_t> late;
    for (const auto& [request, deadline] : deadlines)
        if (now >= deadline) late.push_back(request);
    Message failure(ERROR);
    failure.request_type = static_cast<int32_t>(CALL);
    failure.error = "qor.error.call_timeout";
    for (uint64_t request : late) {
        deadlines.erase(request);
        if (pending.count(request) == 0) continue;  // answered by an earlier handler here
        if (logger != nullptr) logger->debug("[{}] call {} timed out, cancelling", name, request);
        send_cancel(*session, request);
        failure.request = Id(request);
        handle(failure);
    }
    return !late.empty();
}

}  // namespace qor::wamp
