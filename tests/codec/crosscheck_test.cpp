// Cross-check against msgpack-cxx, an independent implementation: what we write it decodes
// to the same values (and, form for form, to the same bytes except at the two negative
// bounds where our integer rule is deliberately narrower), and what it writes we read back.

#include <gtest/gtest.h>
#include <msgpack.hpp>

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <qor/serialization/msgpack.hpp>

#include "hex.hpp"

namespace qm = qor::serialization::msgpack;
using codec_test::to_hex;

namespace {

class CrossCheck : public ::testing::Test {
  protected:
    std::mt19937_64 random{7};

    // A value of random magnitude: every width of the integer rule gets its share.
    int64_t any_int64() {
        const int bits = int(random() % 64);
        const uint64_t magnitude = bits == 0 ? 0 : random() >> (64 - bits);
        const int64_t value = int64_t(magnitude);
        return random() % 2 ? value : -value - int64_t(random() % 2);
    }
    uint64_t any_uint64() {
        const int bits = 1 + int(random() % 64);
        return bits == 64 ? random() : random() >> (64 - bits);
    }
    double any_double() {
        switch (random() % 4) {
            case 0:
                return double(any_int64());
            case 1:
                return std::ldexp(double(random() % 1000000) - 500000.0, int(random() % 80) - 40);
            case 2: {
                const uint64_t bits = random();
                double d;
                std::memcpy(&d, &bits, 8);
                return std::isnan(d) ? 0.5 : d;
            }
            default:
                return std::numeric_limits<double>::denorm_min() * double(random() % 100);
        }
    }
    // msgpack-cxx writes an integral double as an integer; where its bytes must be a float
    // form, give it a value with a fractional part.
    double any_fraction() {
        const double d = any_double();
        if (std::floor(d) != d || std::fabs(d) > 2e19) return d;
        return double(int64_t(random() % 2000001) - 1000000) + 0.5;
    }
    std::string short_string(size_t max_length) {
        std::string s(random() % (max_length + 1), '\0');
        for (auto& c : s) c = char(random());
        return s;
    }
    std::string any_string() {
        static const size_t lengths[] = {0, 1, 31, 32, 255, 256, 65535, 65536};
        const size_t length = random() % 4 == 0 ? lengths[random() % 8] : random() % 300;
        std::string s(length, '\0');
        for (auto& c : s) c = char(random());
        return s;
    }
};

// Packs with our codec and decodes with msgpack-cxx, checking that it took every byte.
template <class T>
msgpack::object_handle theirs_from_ours(const T& value, std::vector<uint8_t>& bytes) {
    bytes.clear();
    qm::pack(bytes, value);
    std::size_t offset = 0;
    auto handle =
        msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size(), offset);
    EXPECT_EQ(offset, bytes.size());
    return handle;
}

template <class T>
std::vector<uint8_t> theirs_bytes(const T& value) {
    msgpack::sbuffer sbuf;
    msgpack::pack(sbuf, value);
    return std::vector<uint8_t>(sbuf.data(), sbuf.data() + sbuf.size());
}

// Reads a T with our codec from bytes msgpack-cxx wrote, checking that it took every byte.
template <class T>
T ours_from_theirs(const std::vector<uint8_t>& bytes) {
    qm::ReadBuffer in(bytes.data(), bytes.size());
    T value{};
    qm::read(in, value);
    EXPECT_EQ(in.position, bytes.size()) << to_hex(bytes);
    return value;
}

}  // namespace

TEST_F(CrossCheck, IntegersWeWriteDecodeAndMatchTheirBytesOutsideTheNarrowBounds) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 20000; ++i) {
        const int64_t v = any_int64();
        SCOPED_TRACE(v);
        EXPECT_EQ(theirs_from_ours(long(v), bytes).get().as<int64_t>(), v);
        const bool narrow_bound = v == -128 || v == -32768;
        if (!narrow_bound) {
            EXPECT_EQ(to_hex(bytes), to_hex(theirs_bytes(v)));
        }
        if (v >= std::numeric_limits<int>::min() && v <= std::numeric_limits<int>::max()) {
            EXPECT_EQ(theirs_from_ours(int(v), bytes).get().as<int>(), int(v));
            if (!narrow_bound) {
                EXPECT_EQ(to_hex(bytes), to_hex(theirs_bytes(int(v))));
            }
        }
        const uint64_t u = any_uint64();
        EXPECT_EQ(theirs_from_ours(static_cast<unsigned long>(u), bytes).get().as<uint64_t>(), u);
        EXPECT_EQ(to_hex(bytes), to_hex(theirs_bytes(u)));
        EXPECT_EQ(theirs_from_ours(uint32_t(u), bytes).get().as<uint32_t>(), uint32_t(u));
    }
    // The two bounds themselves still decode to the right values.
    EXPECT_EQ(theirs_from_ours(-128, bytes).get().as<int>(), -128);
    EXPECT_EQ(theirs_from_ours(-32768, bytes).get().as<int>(), -32768);
}

TEST_F(CrossCheck, DoublesStringsAndBinaryWeWriteAreTheirBytesExactly) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 3000; ++i) {
        const double d = any_double();
        const auto obj = theirs_from_ours(d, bytes);
        EXPECT_EQ(obj.get().type, msgpack::type::FLOAT64);
        EXPECT_EQ(obj.get().as<double>(), d);
        // They shorten integral doubles to integers; we never do.
        if (std::floor(d) != d) {
            EXPECT_EQ(bytes, theirs_bytes(d));
        }

        const std::string s = any_string();
        const auto str = theirs_from_ours(s, bytes);
        EXPECT_EQ(str.get().type, msgpack::type::STR);
        EXPECT_EQ(str.get().as<std::string>(), s);
        EXPECT_EQ(bytes, theirs_bytes(s));

        const std::vector<uint8_t> payload(s.begin(), s.end());
        const auto bin = theirs_from_ours(qm::buffer(payload), bytes);
        ASSERT_EQ(bin.get().type, msgpack::type::BIN);
        EXPECT_EQ(std::vector<uint8_t>(bin.get().via.bin.ptr,
                                       bin.get().via.bin.ptr + bin.get().via.bin.size),
                  payload);
        EXPECT_EQ(bytes, theirs_bytes(std::vector<char>(s.begin(), s.end())));
    }
}

TEST_F(CrossCheck, ContainersWeWriteDecodeToTheSameValues) {
    using Entry = std::tuple<long long, double, std::string, bool>;
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 300; ++i) {
        std::map<std::string, std::vector<Entry>> value;
        const size_t keys = random() % 20;
        for (size_t k = 0; k < keys; ++k) {
            auto& list = value[short_string(40)];
            list.resize(random() % 20);
            for (auto& e : list)
                e = Entry{any_int64(), any_double(), short_string(50), random() % 2 == 0};
        }
        const auto obj = theirs_from_ours(value, bytes);
        EXPECT_EQ((obj.get().as<std::map<std::string, std::vector<Entry>>>()), value);
        // Read back with our own readers too.
        EXPECT_EQ((ours_from_theirs<std::map<std::string, std::vector<Entry>>>(bytes)), value);

        std::vector<bool> flags(random() % 40);
        for (size_t f = 0; f < flags.size(); ++f) flags[f] = random() % 2 == 0;
        EXPECT_EQ(theirs_from_ours(flags, bytes).get().as<std::vector<bool>>(), flags);
    }
}

TEST_F(CrossCheck, IntegersTheyWriteWeReadInEveryTarget) {
    for (int i = 0; i < 20000; ++i) {
        const int64_t v = any_int64();
        SCOPED_TRACE(v);
        const auto bytes = theirs_bytes(v);
        EXPECT_EQ(ours_from_theirs<long>(bytes), v);
        EXPECT_EQ(ours_from_theirs<long long>(bytes), v);
        EXPECT_EQ(ours_from_theirs<int>(bytes), int(uint32_t(uint64_t(v))));
        EXPECT_EQ(ours_from_theirs<uint32_t>(bytes), uint32_t(uint64_t(v)));
        EXPECT_EQ(ours_from_theirs<unsigned long>(bytes), uint64_t(v));

        const uint64_t u = any_uint64();
        EXPECT_EQ(ours_from_theirs<unsigned long>(theirs_bytes(u)), u);
        EXPECT_EQ(ours_from_theirs<uint32_t>(theirs_bytes(u)), uint32_t(u));
    }
}

TEST_F(CrossCheck, FloatsStringsAndBinaryTheyWriteWeRead) {
    for (int i = 0; i < 3000; ++i) {
        const double d = any_fraction();
        EXPECT_EQ(ours_from_theirs<double>(theirs_bytes(d)), d);
        // They write a float as float 32: read exactly as float, widened exactly as double.
        const float f = float(d);
        if (std::floor(f) != f) {
            EXPECT_EQ(ours_from_theirs<float>(theirs_bytes(f)), f);
            EXPECT_EQ(ours_from_theirs<double>(theirs_bytes(f)), double(f));
        }

        const std::string s = any_string();
        EXPECT_EQ(ours_from_theirs<std::string>(theirs_bytes(s)), s);
        const std::vector<char> payload(s.begin(), s.end());
        const qm::buffer block = ours_from_theirs<qm::buffer>(theirs_bytes(payload));
        EXPECT_EQ(std::vector<char>(block.data, block.data + block.size), payload);
    }
}

TEST_F(CrossCheck, IntegralDoublesTheyShortenToIntegersAreRefused) {
    // Integers are never taken for floats, even from a peer that writes 2.0 as 0x02.
    for (const double d : {0.0, 2.0, -1.0, 65536.0, 1e15}) {
        const auto bytes = theirs_bytes(d);
        qm::ReadBuffer in(bytes.data(), bytes.size());
        double value = 0;
        EXPECT_EQ(codec_test::error_of([&] { qm::read(in, value); }), "expected double value")
            << to_hex(bytes);
        EXPECT_EQ(in.position, 0u);
    }
}

TEST_F(CrossCheck, ContainersTheyWriteWeRead) {
    for (int i = 0; i < 300; ++i) {
        std::map<std::string, std::vector<std::tuple<int, double, std::string>>> value;
        const size_t keys = random() % 20;
        for (size_t k = 0; k < keys; ++k) {
            auto& list = value[short_string(40)];
            list.resize(random() % 20);
            for (auto& e : list) e = {int(any_int64()), any_fraction(), short_string(50)};
        }
        const auto bytes = theirs_bytes(value);
        EXPECT_EQ(ours_from_theirs<decltype(value)>(bytes), value);

        // Skip walks exactly what they wrote.
        qm::ReadBuffer in(bytes.data(), bytes.size());
        EXPECT_EQ(qm::skip(in), bytes.size());

        std::vector<bool> flags(random() % 40);
        for (size_t f = 0; f < flags.size(); ++f) flags[f] = random() % 2 == 0;
        EXPECT_EQ(ours_from_theirs<std::vector<bool>>(theirs_bytes(flags)), flags);
    }
}

TEST_F(CrossCheck, SkipAgreesWithTheirParserOnRandomBytes) {
    // Their parser with limits no larger than the input, so a hostile count cannot make it
    // allocate; wherever one of us accepts a value the other must accept the same length.
    uint64_t accepted = 0;
    for (int round = 0; round < 30000; ++round) {
        std::vector<uint8_t> bytes(random() % 20);
        for (auto& b : bytes) b = random() % 2 ? uint8_t(random()) : uint8_t(random() % 8);
        if (!bytes.empty() && random() % 2) bytes[0] = uint8_t(0xC0 + random() % 32);
        const msgpack::unpack_limit limit(bytes.size(), bytes.size(), bytes.size(), bytes.size(),
                                          bytes.size(), 1000);
        std::size_t their_offset = 0;
        bool theirs_ok = true;
        try {
            msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size(), their_offset,
                            nullptr, nullptr, limit);
        } catch (const std::exception&) {
            theirs_ok = false;
        }
        qm::ReadBuffer in(bytes.data(), bytes.size());
        bool ours_ok = true;
        uint64_t our_size = 0;
        try {
            our_size = qm::skip(in);
        } catch (const std::runtime_error&) {
            ours_ok = false;
        }
        ASSERT_EQ(ours_ok, theirs_ok) << to_hex(bytes);
        if (ours_ok) {
            EXPECT_EQ(our_size, their_offset) << to_hex(bytes);
            ++accepted;
        }
    }
    EXPECT_GT(accepted, 3000u);
}
