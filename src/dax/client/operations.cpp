#include <dax/client/dax_client.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <dax/plugins/plugin_handler.hpp>
#include <dax/types/operations.hpp>
#include <qor/qor_client.hpp>

namespace dax::client {

namespace {

// The server's error for a blocking call, raised from its completion inside the pump; `slot`
// tells the wait it belongs to from a nested blocking call's.
struct CallFailed : std::runtime_error {
    CallFailed(const std::string& text, const void* owner)
        : std::runtime_error(text), slot(owner) {}
    const void* slot;
};

}  // namespace

template <class T, class... Args>
void DaxClient::call(const char* name, const Callback<T>& callback, const Args&... args) {
    // The peer refuses (and sends nothing) while it has no server session.
    if (peer->server_endpoint != nullptr)
        peer->server_endpoint->caller.call_limit = std::chrono::milliseconds(async_timeout_ms);
    peer->call<T>(callback, dax::types::kOperationPrefix + std::string(name), args...);
}

template <class T, class Send>
T DaxClient::wait_for(const char* name, const Send& send) {
    // Slot and flag are shared with the completion callback, which the pending call keeps
    // after we leave: a result arriving after a time-out lands here harmlessly.
    struct Slot {
        T value{};
        bool done = false;
        bool waiting = true;  // false once this wait has ended, whichever way
    };
    auto slot = std::make_shared<Slot>();
    const Callback<T> completion = [slot](qor::wamp::RpcResult<T> result) {
        // Nobody is waiting any more: a late value or error changes nothing.
        if (!slot->waiting) return;
        if (result.isError) throw CallFailed(result.error, slot.get());
        slot->value = std::move(result.value);
        slot->done = true;
    };
    struct EndWait {
        Slot& slot;
        ~EndWait() { slot.waiting = false; }
    } end_wait{*slot};

    using clock = std::chrono::steady_clock;
    const clock::time_point start = clock::now();
    send(completion);
    // An exception met while this call's handler is no longer pending, and has not completed,
    // is its own answer failing to decode: that one leaves through this call too.
    const qor::wamp::Caller& caller = peer->server_endpoint->caller;
    const uint64_t request = caller.last_request;
    while (!slot->done) {
        try {
            full_update();
        } catch (const CallFailed& e) {
            if (e.slot == slot.get()) throw;
            note_handler_error(name, e);
        } catch (const std::exception& e) {
            if (!slot->done && caller.pending.count(request) == 0) throw;
            note_handler_error(name, e);
        }
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::nanoseconds>(clock::now() - start);
        const auto elapsed_ms = static_cast<int32_t>(elapsed.count() / 1000000);
        // Tested before completion on purpose: a result delivered by the pass in which the
        // limit was passed is a time-out all the same. The limit is read afresh each pass.
        if (elapsed_ms > timeout_ms) {
            throw std::runtime_error(std::string("DaxClient: timeout during '") + name + "' call");
        }
        // The time-out fails the first pass that ends a whole millisecond past it.
        if (!slot->done) pause_until(start + std::chrono::milliseconds(int64_t(timeout_ms) + 1));
    }
    return std::move(slot->value);
}

void DaxClient::note_handler_error(const char* name, const std::exception& error) {
    ++handler_errors;
    if (auto logger = dax::plugins::plugin_logger()) {
        logger->error("[Client] error in a handler during '{}' call: {}", name, error.what());
    }
}

// Every operation is one line of operations.def; these expand it into its two forms, which
// differ only in the arity of the argument list.
#define DAX_OPERATION_0(NAME, T)                                                    \
    T DaxClient::NAME() {                                                           \
        return wait_for<T>(#NAME, [this](const Callback<T>& done) { NAME(done); }); \
    }                                                                               \
    void DaxClient::NAME(const Callback<T>& callback) {                             \
        call<T>(#NAME, callback);                                                   \
    }
#define DAX_OPERATION_1(NAME, T, A1)                                                 \
    T DaxClient::NAME(const A1& a1) {                                                \
        return wait_for<T>(#NAME, [&](const Callback<T>& done) { NAME(a1, done); }); \
    }                                                                                \
    void DaxClient::NAME(const A1& a1, const Callback<T>& callback) {                \
        call<T>(#NAME, callback, a1);                                                \
    }
#define DAX_OPERATION_2(NAME, T, A1, A2)                                                 \
    T DaxClient::NAME(const A1& a1, const A2& a2) {                                      \
        return wait_for<T>(#NAME, [&](const Callback<T>& done) { NAME(a1, a2, done); }); \
    }                                                                                    \
    void DaxClient::NAME(const A1& a1, const A2& a2, const Callback<T>& callback) {      \
        call<T>(#NAME, callback, a1, a2);                                                \
    }
#define DAX_OPERATION_3(NAME, T, A1, A2, A3)                                                      \
    T DaxClient::NAME(const A1& a1, const A2& a2, const A3& a3) {                                 \
        return wait_for<T>(#NAME, [&](const Callback<T>& done) { NAME(a1, a2, a3, done); });      \
    }                                                                                             \
    void DaxClient::NAME(const A1& a1, const A2& a2, const A3& a3, const Callback<T>& callback) { \
        call<T>(#NAME, callback, a1, a2, a3);                                                     \
    }
#define DAX_OPERATION_4(NAME, T, A1, A2, A3, A4)                                                 \
    T DaxClient::NAME(const A1& a1, const A2& a2, const A3& a3, const A4& a4) {                  \
        return wait_for<T>(#NAME, [&](const Callback<T>& done) { NAME(a1, a2, a3, a4, done); }); \
    }                                                                                            \
    void DaxClient::NAME(const A1& a1, const A2& a2, const A3& a3, const A4& a4,                 \
                         const Callback<T>& callback) {                                          \
        call<T>(#NAME, callback, a1, a2, a3, a4);                                                \
    }
#include <dax/types/operations.def>
#undef DAX_OPERATION_0
#undef DAX_OPERATION_1
#undef DAX_OPERATION_2
#undef DAX_OPERATION_3
#undef DAX_OPERATION_4

}  // namespace dax::client
