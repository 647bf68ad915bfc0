#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/id.hpp>
#include <qor/wamp/incoming.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/rpc.hpp>
#include <qor/wamp/session.hpp>

namespace qor::wamp {

/// The remote-call side of an endpoint: pending calls by request id. Answers are handed to
/// `handle` by the receive side; handlers run inside the pump. One thread at a time.
class Caller {
  public:
    Session* session;  ///< the endpoint's session, through which CALLs go
    /// Pending calls: request id to the handler of its RESULT or ERROR.
    std::map<uint64_t, std::function<void(const Message&)>> pending;
    spdlog::logger* logger = nullptr;  ///< may be null
    std::string name;                  ///< shown in log lines
    uint64_t last_request = 0;         ///< request id of the latest call registered
    /// Opt-in limit for a call's answer. 0 (the default) waits for ever, as the protocol
    /// does. Otherwise a call still pending this long after it was sent completes with an
    /// ERROR result "qor.error.call_timeout", and a WAMP CANCEL for it goes to the router;
    /// `expire`, run by the peer's first pump pass, does both.
    std::chrono::milliseconds call_limit{0};
    /// When each call sent under a limit runs out: the limit it was sent with holds.
    std::map<uint64_t, std::chrono::steady_clock::time_point> deadlines;

    /// A caller sending through `owner`.
    explicit Caller(Session* owner) : session(owner) {}

    /// Registers `rpc` under a fresh random request id (replacing an entry with the same id)
    /// and sends the CALL. A RESULT without arguments yields a value-initialised value.
    template <class T>
    void call(const RPC<T>& rpc);
    /// The same, taking the RPC's handler and encoded arguments instead of copying them: a
    /// large argument goes out without a copy of its own.
    template <class T>
    void call(RPC<T>&& rpc);
    /// Registers and sends a call whose one argument is the `size` raw bytes at `data`, as
    /// binary, written from there straight into the outgoing frame: a scene of megabytes is
    /// not copied into an argument first. The bytes are needed only during the call.
    template <class T>
    void call_binary(const std::string& procedure, const uint8_t* data, uint64_t size,
                     std::function<void(const RpcResult<T>&)> on_result);

    /// Runs and removes the handler of a RESULT or ERROR; an unknown request is logged and
    /// dropped. Returns whether a handler ran.
    bool handle(const Message& answer);

    /// Completes (and cancels) every call whose deadline has passed at `now`; false when
    /// none had.
    bool expire(std::chrono::steady_clock::time_point now);

    /// Completes every call pending now with an ERROR result carrying `error`; calls started by
    /// those handlers stay pending. If a handler throws, the rest stay pending for a later call.
    void fail_all(const std::string& error);

  private:
    // The handler of one call's answer, around the result handler it owns.
    template <class T>
    static std::function<void(const Message&)> answer_handler(
        std::function<void(const RpcResult<T>&)> on_result);
    Id register_call(std::function<void(const Message&)> handler);
    void send_call(Id request, const std::string& procedure,
                   std::vector<serialization::msgpack::buffer> args,
                   const Trailing* last = nullptr);
};

// ERROR is a macro of <windows.h>; see message.hpp.
#pragma push_macro("ERROR")
#undef ERROR
template <class T>
std::function<void(const Message&)> Caller::answer_handler(
    std::function<void(const RpcResult<T>&)> on_result) {
    // Only the result handler is kept: the arguments are not needed once the CALL is out.
    return [on_result = std::move(on_result)](const Message& answer) {
        RpcResult<T> result;  // not const: the handler may move the value out
        if (answer.type == ERROR) {
            result.error = answer.error;
            result.isError = true;
        } else if (answer.args_count > 0) {
            serialization::msgpack::ReadBuffer in = args_cursor(answer);
            using serialization::msgpack::read;
            read(in, result.value);
        }
        on_result(result);
    };
}

template <class T>
void Caller::call(const RPC<T>& rpc) {
    send_call(register_call(answer_handler<T>(rpc.onResult)), rpc.procedure, rpc.args);
}

template <class T>
void Caller::call(RPC<T>&& rpc) {
    send_call(register_call(answer_handler<T>(std::move(rpc.onResult))), rpc.procedure,
              std::move(rpc.args));
}

template <class T>
void Caller::call_binary(const std::string& procedure, const uint8_t* data, uint64_t size,
                         std::function<void(const RpcResult<T>&)> on_result) {
    const Trailing value = Trailing::binary(data, size);
    send_call(register_call(answer_handler<T>(std::move(on_result))), procedure, {}, &value);
}
#pragma pop_macro("ERROR")

}  // namespace qor::wamp
