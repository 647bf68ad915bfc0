#pragma once

#include <cstdint>

namespace qor::wamp::detail {

// The elements a message kind carries after its code, in wire order. The encoder and the
// receive side both walk these rows, so the two cannot disagree on an element order.
enum class Element : uint8_t {
    realm,
    session,
    request,
    authmethod,
    signature,
    request_type,
    error,
    reason,
    topic,
    publication,
    subscription,
    procedure,
    registration,
    details,
    args,  // optional, always last; ArgumentsKw may follow it on the wire
};

struct Layout {
    uint32_t type;
    const char* name;
    uint8_t count;
    Element elements[5];
};

/// The row of `type`, or null for a code that is not part of the protocol subset.
const Layout* find_layout(uint32_t type);

}  // namespace qor::wamp::detail
