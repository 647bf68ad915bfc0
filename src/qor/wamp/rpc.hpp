#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/serialization/msgpack/pack.hpp>

namespace qor::wamp {

/// The outcome of one remote call, handed to its result handler.
/// A RESULT that carries no argument delivers a value-initialised `value` without error.
template <class T>
struct RpcResult {
    T value{};             ///< the decoded result; value-initialised when the call failed
    std::string error;     ///< the error URI; empty on success
    bool isError = false;  ///< true when the server answered with ERROR

    /// The error text (empty on success).
    const std::string& getError() const { return error; }
};

/// Encodes one value into `scratch` (cleared first) and returns an owned copy of its bytes.
template <class T>
serialization::msgpack::buffer encode_argument(std::vector<uint8_t>& scratch, const T& value) {
    using serialization::msgpack::pack;
    scratch.clear();
    pack(scratch, value);
    return serialization::msgpack::buffer(scratch);
}

/// A binary argument skips the scratch: it is written once, into a block of its encoded size,
/// so a large one is not copied twice.
inline serialization::msgpack::buffer encode_argument(std::vector<uint8_t>& scratch,
                                                      const serialization::msgpack::buffer& value) {
    (void)scratch;
    return serialization::msgpack::pack_bin(value);
}

/// One remote call being prepared: procedure, encoded arguments and result handler.
///
/// Threading: built and handed to `Caller::call` on the pumping thread; `onResult` runs there,
/// inside a pump pass.
template <class T>
class RPC {
  public:
    std::string procedure;                                         ///< procedure URI
    std::vector<serialization::msgpack::buffer> args;              ///< encoded positional arguments
    std::map<std::string, serialization::msgpack::buffer> kwargs;  ///< keyword arguments; not sent
    std::vector<uint8_t> scratch;                       ///< reused while encoding arguments
    std::function<void(const RpcResult<T>&)> onResult;  ///< the result handler

    /// Copies the procedure and encodes each argument once, in order; a `buffer` goes as bin.
    template <class... Args>
    explicit RPC(const std::string& uri, const Args&... arguments) : procedure(uri) {
        args.reserve(sizeof...(Args));
        (args.push_back(encode_argument(scratch, arguments)), ...);
        initHandlers();
    }

  private:
    // The default handler makes a forgotten handler loud when the answer arrives.
    void initHandlers() {
        onResult = [](const RpcResult<T>&) {
            throw std::runtime_error("RPC onResult callback has not been set");
        };
    }
};

}  // namespace qor::wamp
