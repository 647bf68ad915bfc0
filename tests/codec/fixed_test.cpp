#include <gtest/gtest.h>

#include <vector>

#include <qor/serialization/msgpack.hpp>

#include "support/testing.hpp"

namespace msgpack = qor::serialization::msgpack;
using test_support::hex;
using test_support::to_hex;

TEST(FixedWriters, RecordsMatchTheGeneralWriters) {
    std::vector<uint8_t> general;
    msgpack::pack_array_header(general, 3);
    msgpack::pack(general, 1.0);
    msgpack::pack(general, -2.5);
    msgpack::pack(general, 1e300);
    std::vector<uint8_t> fixed(msgpack::float64_record_size(3));
    EXPECT_EQ(msgpack::put_float64_record(fixed.data(), 1.0, -2.5, 1e300),
              fixed.data() + fixed.size());
    EXPECT_EQ(to_hex(fixed), to_hex(general));

    general.clear();
    msgpack::pack_array_header(general, 2);
    msgpack::pack(general, uint32_t(0));
    msgpack::pack(general, uint32_t(4294967295u));
    fixed.assign(msgpack::uint32_record_size(2), 0);
    msgpack::put_uint32_record(fixed.data(), uint32_t(0), uint32_t(4294967295u));
    EXPECT_EQ(to_hex(fixed), "92 ce 00 00 00 00 ce ff ff ff ff");
    EXPECT_EQ(fixed, general);
}

TEST(FixedReaders, CanonicalRecordsAreReadInOneStep) {
    const auto bytes =
        hex("93 cb 3f f0 00 00 00 00 00 00 cb c0 04 00 00 00 00 00 00"
            "   cb 00 00 00 00 00 00 00 00"
            "92 ce 00 00 00 07 ce ff ff ff ff");
    msgpack::ReadBuffer in(bytes.data(), bytes.size());
    double x = 9, y = 9, z = 9;
    ASSERT_TRUE(msgpack::read_float64_record(in, x, y, z));
    EXPECT_EQ(x, 1.0);
    EXPECT_EQ(y, -2.5);
    EXPECT_EQ(z, 0.0);
    EXPECT_EQ(in.position, 28u);
    uint32_t a = 0, b = 0;
    ASSERT_TRUE(msgpack::read_uint32_record(in, a, b));
    EXPECT_EQ(a, 7u);
    EXPECT_EQ(b, 4294967295u);
    EXPECT_EQ(in.remaining(), 0u);
}

TEST(FixedReaders, AnyOtherFormIsLeftToTheGeneralReaders) {
    // Each row is a valid or invalid encoding that is not the canonical one; the fast path
    // must decline without moving the cursor.
    const char* float_rows[] = {
        "93 ca 3f 80 00 00 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00",  // float 32
        "92 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00",                 // two fields
        "94 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00",
        "93 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00",
        "93 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00",
        "dc 00 03 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00 00 00 cb 00 00 00 00 00 00",
        "",
    };
    for (const char* row : float_rows) {
        SCOPED_TRACE(row);
        const auto bytes = hex(row);
        msgpack::ReadBuffer in(bytes.data(), bytes.size());
        double x = 9, y = 9, z = 9;
        EXPECT_FALSE(msgpack::read_float64_record(in, x, y, z));
        EXPECT_EQ(in.position, 0u);
        EXPECT_EQ(x, 9.0);
    }
    const char* uint_rows[] = {
        "93 ce 00 00 00 01 ce 00 00 00 02 07",           // a fixint third field
        "93 ce 00 00 00 01 ce 00 00 00 02 cf 00 00 00",  // a uint 64 third field, truncated
        "93 ce 00 00 00 01 ce 00 00 00 02 ce 00 00 00",  // truncated
        "92 ce 00 00 00 01 ce 00 00 00 02 ce 00 00 00 03",
    };
    for (const char* row : uint_rows) {
        SCOPED_TRACE(row);
        const auto bytes = hex(row);
        msgpack::ReadBuffer in(bytes.data(), bytes.size());
        uint32_t a = 9, b = 9, c = 9;
        EXPECT_FALSE(msgpack::read_uint32_record(in, a, b, c));
        EXPECT_EQ(in.position, 0u);
        EXPECT_EQ(a, 9u);
    }
}
