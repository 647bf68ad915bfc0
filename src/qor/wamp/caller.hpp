#pragma once

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

    /// A caller sending through `owner`.
    explicit Caller(Session* owner) : session(owner) {}

    /// Registers `rpc` under a fresh random request id (replacing an entry with the same id)
    /// and sends the CALL. A RESULT without arguments yields a value-initialised value.
    template <class T>
    void call(const RPC<T>& rpc);

    /// Runs and removes the handler of a RESULT or ERROR; an unknown request is logged and
    /// dropped. Returns whether a handler ran.
    bool handle(const Message& answer);

    /// Completes every call pending now with an ERROR result carrying `error`; calls started by
    /// those handlers stay pending. If a handler throws, the rest stay pending for a later call.
    void fail_all(const std::string& error);

  private:
    void send_call(Id request, const std::string& procedure,
                   const std::vector<serialization::msgpack::buffer>& args);
};

template <class T>
void Caller::call(const RPC<T>& rpc) {
    const Id request = Id::Random();
    last_request = request.value();
    pending.insert_or_assign(request.value(), [rpc](const Message& answer) {
        RpcResult<T> result;
        if (answer.type == ERROR) {
            result.error = answer.error;
            result.isError = true;
        } else if (answer.args_count > 0) {
            serialization::msgpack::ReadBuffer in = args_cursor(answer);
            using serialization::msgpack::read;
            read(in, result.value);
        }
        rpc.onResult(result);
    });
    send_call(request, rpc.procedure, rpc.args);
}

}  // namespace qor::wamp
