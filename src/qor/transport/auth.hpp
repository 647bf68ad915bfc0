#pragma once

// The challenge-response helpers live with the openings in qor::wamp; these names stay for
// code written against the transport.
#include <qor/wamp/auth.hpp>

namespace qor::transport {

using wamp::base64_encode;
using wamp::equal_constant_time;
using wamp::wampcra_derive_key;
using wamp::wampcra_sign;

}  // namespace qor::transport
