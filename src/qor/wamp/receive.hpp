#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp/message.hpp>

namespace qor::wamp {

/// Validates one encoded WAMP message of any known code and fills a Message: ids, URIs,
/// `details` (each value's encoded bytes), `request_type`, ArgumentsKw, `raw` (which keeps
/// `bytes`), `args_offset`, `args_end` and `args_count`. Malformed, truncated or oversized
/// input raises std::runtime_error ("WAMP message: ...") and nothing outside `bytes` is read.
Message parse_message(serialization::msgpack::buffer bytes);

/// True when `size` bytes at `data` are a CANCEL [49, request, options], a caller giving up on
/// an answer: outside the message model (a client's subset), recognised by its first two
/// elements. Never raises.
bool is_cancel(const uint8_t* data, size_t size);

/// Owned copies of a received message's positional arguments, one encoded value each.
std::vector<serialization::msgpack::buffer> received_args(const Message& message);

}  // namespace qor::wamp
