#include <qor/wamp/auth.hpp>

#include <stdexcept>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace qor::wamp {

std::string base64_encode(const std::string& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string wampcra_derive_key(const std::string& secret, const std::string& salt, int iterations,
                               int keylen) {
    if (iterations <= 0 || keylen <= 0)
        throw std::runtime_error("wampcra: iterations and key length must be positive");
    std::string key(static_cast<size_t>(keylen), '\0');
    if (PKCS5_PBKDF2_HMAC(secret.data(), static_cast<int>(secret.size()),
                          reinterpret_cast<const unsigned char*>(salt.data()),
                          static_cast<int>(salt.size()), iterations, EVP_sha256(), keylen,
                          reinterpret_cast<unsigned char*>(key.data())) != 1)
        throw std::runtime_error("wampcra: key derivation failed");
    return base64_encode(key);
}

std::string wampcra_sign(const std::string& key, const std::string& challenge) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
              reinterpret_cast<const unsigned char*>(challenge.data()), challenge.size(), digest,
              &length))
        throw std::runtime_error("wampcra: signing failed");
    return base64_encode(std::string(reinterpret_cast<const char*>(digest), length));
}

bool equal_constant_time(const std::string& a, const std::string& b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace qor::wamp
