// Cross-check against msgpack-cxx, an independent implementation of the format. Byte tables
// elsewhere pin every form we write; here: where one of us accepts a value the other takes the
// same length, and the integral floats it shortens to integers are refused by name.

#include <gtest/gtest.h>
#include <msgpack.hpp>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>

#include "support/testing.hpp"

namespace qm = qor::serialization::msgpack;
namespace dt = dax::types;
using test_support::error_of;
using test_support::to_hex;

namespace {

std::mt19937_64 random_bits{7};

template <class T>
std::vector<uint8_t> theirs(const T& value) {
    msgpack::sbuffer sbuf;
    msgpack::pack(sbuf, value);
    return std::vector<uint8_t>(sbuf.data(), sbuf.data() + sbuf.size());
}
// Our reader decodes `bytes` as a T, and must take every byte.
template <class T>
T our_read(const std::vector<uint8_t>& bytes) {
    qm::ReadBuffer in(bytes.data(), bytes.size());
    T value{};
    using qm::read;
    using dt::read;
    read(in, value);
    EXPECT_EQ(in.position, bytes.size()) << to_hex(bytes);
    return value;
}

using Vertex = std::tuple<double, double, double>;
using Pose = std::tuple<float, float, float, float, float, float, float>;

}  // namespace

TEST(CrossCheck, IntegralFloatsTheyShortenToIntegersAreRefused) {
    // A peer that writes 2.0 as 0x02 breaks the float rule: the scalar readers and the records'
    // fixed-size paths name it and consume nothing.
    for (const double d : {0.0, 2.0, -1.0, 65536.0, 1e15}) {
        const auto bytes = theirs(d);
        qm::ReadBuffer in(bytes.data(), bytes.size());
        double value = 0;
        EXPECT_EQ(error_of([&] { qm::read(in, value); }), "expected double value") << d;
        EXPECT_EQ(in.position, 0u);
    }
    const auto pose = theirs(Pose(0.5f, 0.5f, 0.5f, 1.0f, 0.5f, 0.5f, 0.5f));
    EXPECT_EQ(error_of([&] { our_read<dt::pose7_t>(pose); }), "expected float value");
    const auto vertex = theirs(Vertex(0.5, 2.0, 0.5));
    EXPECT_EQ(error_of([&] { our_read<dt::vec3d_t>(vertex); }), "expected double value");
}

TEST(CrossCheck, SkipAgreesWithTheirParserOnRandomBytes) {
    // Their parser with limits no larger than the input, so a hostile count cannot make it
    // allocate; wherever one of us accepts a value the other must accept the same length.
    uint64_t accepted = 0;
    for (int round = 0; round < 30000; ++round) {
        std::vector<uint8_t> bytes(random_bits() % 20);
        for (auto& b : bytes) b = random_bits() % 2 ? uint8_t(random_bits()) : uint8_t(random_bits() % 8);
        if (!bytes.empty() && random_bits() % 2) bytes[0] = uint8_t(0xC0 + random_bits() % 32);
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
        uint64_t our_size = 0;
        const bool ours_ok = error_of([&] { our_size = qm::skip(in); }).empty();
        ASSERT_EQ(ours_ok, theirs_ok) << to_hex(bytes);
        if (ours_ok) {
            EXPECT_EQ(our_size, their_offset) << to_hex(bytes);
            ++accepted;
        }
    }
    EXPECT_GT(accepted, 3000u);
}
