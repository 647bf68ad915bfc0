#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <qor/serialization/msgpack.hpp>

#include "support/testing.hpp"

namespace msgpack = qor::serialization::msgpack;
using test_support::error_of;
using test_support::hex;
using test_support::to_hex;

namespace {

template <class T>
std::string packed(const T& value) {
    std::vector<uint8_t> out;
    msgpack::pack(out, value);
    return to_hex(out);
}

struct SignedRow {
    long long value;
    const char* bytes;
    bool wide = false;  // a 64-bit form: only for 64-bit types
};

// Every boundary of the integer rule, including the two negative bounds that are one step
// narrower than the format would allow.
const SignedRow signed_rows[] = {
    {0, "00"},
    {1, "01"},
    {127, "7f"},
    {128, "cc 80"},
    {255, "cc ff"},
    {256, "cd 01 00"},
    {65535, "cd ff ff"},
    {65536, "ce 00 01 00 00"},
    {2147483647, "ce 7f ff ff ff"},
    {-1, "ff"},
    {-32, "e0"},
    {-33, "d0 df"},
    {-127, "d0 81"},
    {-128, "d1 ff 80"},
    {-129, "d1 ff 7f"},
    {-32767, "d1 80 01"},
    {-32768, "d2 ff ff 80 00"},
    {-2147483647, "d2 80 00 00 01"},
    {-2147483647 - 1, "d2 80 00 00 00"},
    {4294967295ll, "ce ff ff ff ff", true},
    {4294967296ll, "cf 00 00 00 01 00 00 00 00", true},
    {std::numeric_limits<long long>::max(), "cf 7f ff ff ff ff ff ff ff", true},
    {-2147483649ll, "d3 ff ff ff ff 7f ff ff ff", true},
    {std::numeric_limits<long long>::min(), "d3 80 00 00 00 00 00 00 00", true},
};

}  // namespace

TEST(PackInteger, EveryBoundaryInAllSignedWidths) {
    for (const auto& row : signed_rows) {
        SCOPED_TRACE(row.value);
        if (!row.wide) {
            EXPECT_EQ(packed(int(row.value)), row.bytes);
        }
        EXPECT_EQ(packed(int64_t(row.value)), row.bytes);
        EXPECT_EQ(packed(row.value), row.bytes);
    }
}

TEST(PackInteger, Uint32IsAlwaysFiveBytes) {
    EXPECT_EQ(packed(uint32_t(0)), "ce 00 00 00 00");
    EXPECT_EQ(packed(uint32_t(1)), "ce 00 00 00 01");
    EXPECT_EQ(packed(uint32_t(0x12345678)), "ce 12 34 56 78");
    EXPECT_EQ(packed(uint32_t(4294967295u)), "ce ff ff ff ff");
}

TEST(PackInteger, UnsignedLongTakesTheSmallestUnsignedForm) {
    EXPECT_EQ(packed(0ull), "00");
    EXPECT_EQ(packed(127ull), "7f");
    EXPECT_EQ(packed(128ull), "cc 80");
    EXPECT_EQ(packed(255ull), "cc ff");
    EXPECT_EQ(packed(256ull), "cd 01 00");
    EXPECT_EQ(packed(65535ull), "cd ff ff");
    EXPECT_EQ(packed(65536ull), "ce 00 01 00 00");
    EXPECT_EQ(packed(4294967295ull), "ce ff ff ff ff");
    EXPECT_EQ(packed(4294967296ull), "cf 00 00 00 01 00 00 00 00");
    EXPECT_EQ(packed(9007199254740992ull), "cf 00 20 00 00 00 00 00 00");
    EXPECT_EQ(packed(18446744073709551615ull), "cf ff ff ff ff ff ff ff ff");
}

TEST(PackScalar, BoolAndDouble) {
    EXPECT_EQ(packed(false), "c2");
    EXPECT_EQ(packed(true), "c3");
    EXPECT_EQ(packed(1.0), "cb 3f f0 00 00 00 00 00 00");
    EXPECT_EQ(packed(0.0), "cb 00 00 00 00 00 00 00 00");
    EXPECT_EQ(packed(-0.0), "cb 80 00 00 00 00 00 00 00");
    EXPECT_EQ(packed(-2.5), "cb c0 04 00 00 00 00 00 00");
    // Integral and single-precision-exact values are still nine bytes.
    EXPECT_EQ(packed(1.5), "cb 3f f8 00 00 00 00 00 00");
    EXPECT_EQ(packed(std::numeric_limits<double>::infinity()), "cb 7f f0 00 00 00 00 00 00");
}

TEST(PackStringAndBinary, FormSwitchesAtEachLengthBoundary) {
    const std::tuple<bool, size_t, const char*> rows[] = {
        {false, 0, "a0"},           {false, 1, "a1"},
        {false, 31, "bf"},          {false, 32, "d9 20"},
        {false, 255, "d9 ff"},      {false, 256, "da 01 00"},
        {false, 65535, "da ff ff"}, {false, 65536, "db 00 01 00 00"},
        {true, 0, "c4 00"},         {true, 1, "c4 01"},
        {true, 255, "c4 ff"},       {true, 256, "c5 01 00"},
        {true, 65535, "c5 ff ff"},  {true, 65536, "c6 00 01 00 00"},
    };
    for (const auto& [binary, length, header_hex] : rows) {
        SCOPED_TRACE(header_hex);
        std::vector<uint8_t> payload(length);
        for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7);
        std::vector<uint8_t> out;
        if (binary)
            msgpack::pack(out, msgpack::buffer(payload));
        else
            msgpack::pack(out, std::string(payload.begin(), payload.end()));
        const auto header = hex(header_hex);
        ASSERT_EQ(out.size(), header.size() + length);
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + header.size()), header);
        EXPECT_EQ(std::vector<uint8_t>(out.begin() + header.size(), out.end()), payload);
    }
}

TEST(PackString, BytesAreCopiedAsTheyAreAndLiteralsAreStrings) {
    EXPECT_EQ(packed(std::string("a\0b", 3)), "a3 61 00 62");
    EXPECT_EQ(packed(std::string("\xff\xfe")), "a2 ff fe");
    EXPECT_EQ(packed("hi"), "a2 68 69");
    EXPECT_EQ(packed(""), "a0");
    std::vector<uint8_t> out{0x01};
    const char* null_text = nullptr;
    EXPECT_EQ(error_of([&] { msgpack::pack(out, null_text); }), "null string pointer");
    EXPECT_EQ(out.size(), 1u);
}

TEST(PackContainer, HeadersSwitchAtEachCountBoundary) {
    const std::tuple<uint64_t, const char*, const char*> rows[] = {
        {0, "90", "80"},
        {15, "9f", "8f"},
        {16, "dc 00 10", "de 00 10"},
        {65535, "dc ff ff", "de ff ff"},
        {65536, "dd 00 01 00 00", "df 00 01 00 00"},
        {4294967295ull, "dd ff ff ff ff", "df ff ff ff ff"},
    };
    for (const auto& [count, array, map] : rows) {
        SCOPED_TRACE(count);
        std::vector<uint8_t> out;
        msgpack::pack_array_header(out, count);
        EXPECT_EQ(to_hex(out), array);
        out.clear();
        msgpack::pack_map_header(out, count);
        EXPECT_EQ(to_hex(out), map);
    }
}

TEST(PackContainer, VectorsMapsTuplesAndPairs) {
    EXPECT_EQ(packed(std::vector<int>{}), "90");
    EXPECT_EQ(packed(std::vector<int>(15, 1)), "9f 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01");
    std::vector<uint8_t> out;
    msgpack::pack(out, std::vector<int>(16, 2));
    EXPECT_EQ(to_hex({out.begin(), out.begin() + 4}), "dc 00 10 02");
    EXPECT_EQ(out.size(), 3u + 16u);

    EXPECT_EQ(packed(std::vector<bool>{true, false, true}), "93 c3 c2 c3");
    EXPECT_EQ(packed(std::vector<std::string>{"a", ""}), "92 a1 61 a0");
    // Keys in the map's order, whatever the insertion order.
    EXPECT_EQ(packed(std::map<std::string, int>{{"b", 2}, {"a", -1}}), "82 a1 61 ff a1 62 02");
    EXPECT_EQ(packed(std::make_tuple(1, std::string("x"), 2.0)),
              "93 01 a1 78 cb 40 00 00 00 00 00 00 00");
    EXPECT_EQ(packed(std::make_pair(uint32_t(7), -200)), "92 ce 00 00 00 07 d1 ff 38");
}

TEST(PackErrors, LimitsRaiseTheirTextBeforeAnythingIsAppended) {
    std::vector<uint8_t> out{0xAA};
    EXPECT_EQ(error_of([&] { msgpack::pack_array_header(out, 4294967296ull); }), "array too large");
    EXPECT_EQ(error_of([&] { msgpack::pack_map_header(out, 4294967296ull); }), "map too large");

    // A block claiming more than 4 GiB: the size check must come before its bytes are touched.
    msgpack::buffer huge;
    const uint64_t real_size = huge.size;
    huge.size = 4294967296ull;
    EXPECT_EQ(error_of([&] { msgpack::pack(out, huge); }), "binary data too large");
    huge.size = real_size;

    EXPECT_EQ(to_hex(out), "aa");
}

TEST(PackErrors, FailureInsideAContainerKeepsWhatWasWritten) {
    std::vector<uint8_t> out;
    const std::vector<const char*> items{"a", nullptr, "c"};
    EXPECT_EQ(error_of([&] { msgpack::pack(out, items); }), "null string pointer");
    EXPECT_EQ(to_hex(out), "93 a1 61");
}

TEST(PackRuns, VectorsOfNumbersGiveTheSameBytesAsOneValueAtATime) {
    std::vector<int64_t> longs;
    for (const auto& row : signed_rows) longs.push_back(int64_t(row.value));
    std::vector<uint8_t> expected;
    msgpack::pack_array_header(expected, longs.size());
    for (int64_t v : longs) msgpack::pack(expected, v);
    std::vector<uint8_t> out{0xAB};  // a run appends after what is there
    msgpack::pack(out, longs);
    expected.insert(expected.begin(), 0xAB);
    EXPECT_EQ(to_hex(out), to_hex(expected));

    const std::vector<int> ints{0, -1, 127, 128, -128, -32768, 2147483647};
    EXPECT_EQ(packed(ints), "97 00 ff 7f cc 80 d1 ff 80 d2 ff ff 80 00 ce 7f ff ff ff");
    const std::vector<uint64_t> ids{1, 255, 65536, 4294967296ull};
    EXPECT_EQ(packed(ids), "94 01 cc ff ce 00 01 00 00 cf 00 00 00 01 00 00 00 00");
    EXPECT_EQ(packed(std::vector<uint32_t>{0, 7}), "92 ce 00 00 00 00 ce 00 00 00 07");
    EXPECT_EQ(packed(std::vector<double>{1.0, -2.5}),
              "92 cb 3f f0 00 00 00 00 00 00 cb c0 04 00 00 00 00 00 00");
    EXPECT_EQ(packed(std::vector<long long>{}), "90");
}
