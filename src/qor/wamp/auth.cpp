#include <qor/wamp/auth.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>

// SHA-256, HMAC and PBKDF2 written out here rather than taken from OpenSSL: wampcra must work in
// builds without it (Windows has no OpenSSL from the build machine), and one implementation on
// every platform keeps the signatures identical everywhere.
namespace qor::wamp {

namespace {

using Digest = std::array<uint8_t, 32>;

constexpr uint32_t round_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

uint32_t rotr(uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

class Sha256 {
  public:
    void add(const uint8_t* data, size_t size) {
        total_ += size;
        while (size > 0) {
            const size_t take = std::min(size, block_.size() - used_);
            std::memcpy(block_.data() + used_, data, take);
            used_ += take;
            data += take;
            size -= take;
            if (used_ == block_.size()) compress();
        }
    }
    void add(const std::string& text) {
        add(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    Digest finish() {
        const uint64_t bits = total_ * 8;
        const uint8_t one = 0x80, zero = 0;
        add(&one, 1);
        while (used_ != 56) add(&zero, 1);
        uint8_t length[8];
        for (int i = 0; i < 8; ++i) length[i] = uint8_t(bits >> (56 - 8 * i));
        add(length, 8);
        Digest out;
        for (int i = 0; i < 8; ++i)
            for (int j = 0; j < 4; ++j) out[size_t(4 * i + j)] = uint8_t(state_[i] >> (24 - 8 * j));
        return out;
    }

  private:
    void compress() {
        uint32_t w[64];
        for (int i = 0; i < 16; ++i)
            w[i] = uint32_t(block_[size_t(4 * i)]) << 24 | uint32_t(block_[size_t(4 * i + 1)]) << 16 |
                   uint32_t(block_[size_t(4 * i + 2)]) << 8 | uint32_t(block_[size_t(4 * i + 3)]);
        for (int i = 16; i < 64; ++i) {
            const uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
            const uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
            w[i] = w[i - 16] + s0 + w[i - 7] + s1;
        }
        uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3], e = state_[4],
                 f = state_[5], g = state_[6], h = state_[7];
        for (int i = 0; i < 64; ++i) {
            const uint32_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) +
                                round_constants[i] + w[i];
            const uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
            h = g;
            g = f;
            f = e;
            e = d + t1;
            d = c;
            c = b;
            b = a;
            a = t1 + t2;
        }
        state_[0] += a;
        state_[1] += b;
        state_[2] += c;
        state_[3] += d;
        state_[4] += e;
        state_[5] += f;
        state_[6] += g;
        state_[7] += h;
        used_ = 0;
    }

    uint32_t state_[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                          0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<uint8_t, 64> block_{};
    size_t used_ = 0;
    uint64_t total_ = 0;
};

// HMAC-SHA256 with the inner and outer key pads prepared once, for PBKDF2's many rounds.
class Hmac {
  public:
    explicit Hmac(const std::string& key) {
        std::array<uint8_t, 64> k{};
        if (key.size() > k.size()) {
            Sha256 h;
            h.add(key);
            const Digest d = h.finish();
            std::memcpy(k.data(), d.data(), d.size());
        } else {
            std::memcpy(k.data(), key.data(), key.size());
        }
        std::array<uint8_t, 64> pad;
        for (size_t i = 0; i < pad.size(); ++i) pad[i] = k[i] ^ 0x36;
        inner_.add(pad.data(), pad.size());
        for (size_t i = 0; i < pad.size(); ++i) pad[i] = k[i] ^ 0x5c;
        outer_.add(pad.data(), pad.size());
    }
    Digest sign(const uint8_t* data, size_t size) const {
        Sha256 inner = inner_;
        inner.add(data, size);
        const Digest d = inner.finish();
        Sha256 outer = outer_;
        outer.add(d.data(), d.size());
        return outer.finish();
    }

  private:
    Sha256 inner_, outer_;
};

}  // namespace

std::string base64_encode(const std::string& bytes) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve(4 * ((bytes.size() + 2) / 3));
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 |
                           uint8_t(bytes[i + 2]);
        for (int s = 18; s >= 0; s -= 6) out += alphabet[(v >> s) & 63];
    }
    const size_t rest = bytes.size() - i;
    if (rest > 0) {
        uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
        if (rest == 2) v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += rest == 2 ? alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string wampcra_derive_key(const std::string& secret, const std::string& salt, int iterations,
                               int keylen) {
    if (iterations <= 0 || keylen <= 0)
        throw std::runtime_error("wampcra: iterations and key length must be positive");
    const Hmac prf(secret);
    std::string key;
    key.reserve(size_t(keylen));
    std::string block_input = salt + std::string(4, '\0');
    for (uint32_t block = 1; key.size() < size_t(keylen); ++block) {
        for (int i = 0; i < 4; ++i) block_input[salt.size() + size_t(i)] = char(block >> (24 - 8 * i));
        Digest u = prf.sign(reinterpret_cast<const uint8_t*>(block_input.data()), block_input.size());
        Digest t = u;
        for (int round = 1; round < iterations; ++round) {
            u = prf.sign(u.data(), u.size());
            for (size_t j = 0; j < t.size(); ++j) t[j] ^= u[j];
        }
        const size_t take = std::min(t.size(), size_t(keylen) - key.size());
        key.append(reinterpret_cast<const char*>(t.data()), take);
    }
    return base64_encode(key);
}

std::string wampcra_sign(const std::string& key, const std::string& challenge) {
    const Digest d =
        Hmac(key).sign(reinterpret_cast<const uint8_t*>(challenge.data()), challenge.size());
    return base64_encode(std::string(reinterpret_cast<const char*>(d.data()), d.size()));
}

bool equal_constant_time(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

}  // namespace qor::wamp
