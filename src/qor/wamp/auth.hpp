#pragma once

#include <string>

// WAMP challenge-response helpers shared by the client and the router openings. The one
// file that needs a crypto library (OpenSSL here): another platform swaps this file only.
namespace qor::wamp {

/// Standard base64 (with padding) of `bytes`.
std::string base64_encode(const std::string& bytes);
/// The wampcra key for a salted secret: base64 of PBKDF2-HMAC-SHA256(secret, salt, iterations,
/// keylen).
std::string wampcra_derive_key(const std::string& secret, const std::string& salt, int iterations,
                               int keylen);
/// The wampcra signature: base64 of HMAC-SHA256 keyed with `key` over `challenge`.
std::string wampcra_sign(const std::string& key, const std::string& challenge);
/// Compares two texts in time that does not depend on where they differ.
bool equal_constant_time(const std::string& a, const std::string& b);

}  // namespace qor::wamp
