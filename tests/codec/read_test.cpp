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

namespace {

// Reads one T from `bytes` and checks that exactly `bytes.size()` were consumed.
template <class T>
T read_all(const std::vector<uint8_t>& bytes) {
    msgpack::ReadBuffer in(bytes.data(), bytes.size());
    T value{};
    msgpack::read(in, value);
    EXPECT_EQ(in.position, bytes.size());
    return value;
}

// Reads a T from `bytes`, expecting `text`; the failing value must not have been consumed.
template <class T>
std::string read_error(const std::vector<uint8_t>& bytes) {
    msgpack::ReadBuffer in(bytes.data(), bytes.size());
    T value{};
    const std::string text = error_of([&] { msgpack::read(in, value); });
    EXPECT_EQ(in.position, 0u) << text;
    return text;
}

// Reads `bytes` into `value` as it stands: "<error> at <position the cursor stopped at>", the
// error "no error" when there is none.
template <class T>
std::string read_into(const std::vector<uint8_t>& bytes, T& value) {
    msgpack::ReadBuffer in(bytes.data(), bytes.size());
    const std::string error = error_of([&] { msgpack::read(in, value); });
    return (error.empty() ? "no error" : error) + " at " + std::to_string(in.position);
}

struct IntegerRow {
    const char* bytes;
    long long as_64;  // int64_t (long on Linux) and long long
    int as_int;       // int: low 32 bits
    uint32_t as_u32;  // uint32_t: low 32 bits
    uint64_t as_u;    // uint64_t: all 64 bits
};

const IntegerRow integer_rows[] = {
    {"00", 0, 0, 0, 0},
    {"7f", 127, 127, 127, 127},
    {"e0", -32, -32, 0xFFFFFFE0u, 0xFFFFFFFFFFFFFFE0ull},
    {"ff", -1, -1, 0xFFFFFFFFu, 0xFFFFFFFFFFFFFFFFull},
    {"cc ff", 255, 255, 255, 255},
    {"cd ff ff", 65535, 65535, 65535, 65535},
    {"ce ff ff ff ff", 4294967295ll, -1, 0xFFFFFFFFu, 4294967295ull},
    {"ce 80 00 00 00", 2147483648ll, -2147483647 - 1, 0x80000000u, 2147483648ull},
    {"cf 00 00 00 01 00 00 00 00", 4294967296ll, 0, 0, 4294967296ull},
    {"cf 00 00 00 01 00 00 00 07", 4294967303ll, 7, 7, 4294967303ull},
    // uint 64 above the signed range keeps its bits: negative in the signed targets.
    {"cf ff ff ff ff ff ff ff fe", -2, -2, 0xFFFFFFFEu, 0xFFFFFFFFFFFFFFFEull},
    {"d0 80", -128, -128, 0xFFFFFF80u, 0xFFFFFFFFFFFFFF80ull},
    {"d0 7f", 127, 127, 127, 127},
    {"d1 80 00", -32768, -32768, 0xFFFF8000u, 0xFFFFFFFFFFFF8000ull},
    {"d2 80 00 00 00", -2147483648ll, -2147483647 - 1, 0x80000000u, 0xFFFFFFFF80000000ull},
    {"d3 ff ff ff ff 7f ff ff ff", -2147483649ll, 2147483647, 0x7FFFFFFFu, 0xFFFFFFFF7FFFFFFFull},
    {"d3 80 00 00 00 00 00 00 00", std::numeric_limits<long long>::min(), 0, 0,
     0x8000000000000000ull},
};

}  // namespace

TEST(ReadInteger, EveryFormIntoEveryIntegerTarget) {
    for (const auto& row : integer_rows) {
        SCOPED_TRACE(row.bytes);
        const auto bytes = hex(row.bytes);
        EXPECT_EQ(read_all<int64_t>(bytes), row.as_64);
        EXPECT_EQ(read_all<long long>(bytes), row.as_64);
        EXPECT_EQ(read_all<int>(bytes), row.as_int);
        EXPECT_EQ(read_all<uint32_t>(bytes), row.as_u32);
        EXPECT_EQ(read_all<uint64_t>(bytes), row.as_u);
    }
}

TEST(ReadInteger, NonIntegerFormsAreRefusedWithoutConsuming) {
    for (const char* bytes : {"c0", "c2", "c3", "ca 3f c0 00 00", "cb 3f f8 00 00 00 00 00 00",
                              "a1 31", "c4 01 31", "91 01", "81 01 01", "c1", "d4 01 01"}) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(read_error<int64_t>(hex(bytes)), "expecting integer value");
        EXPECT_EQ(read_error<long long>(hex(bytes)), "expecting integer value");
        EXPECT_EQ(read_error<int>(hex(bytes)), "expecting integer value");
        EXPECT_EQ(read_error<uint32_t>(hex(bytes)), "expecting integer value");
        EXPECT_EQ(read_error<uint64_t>(hex(bytes)), "expecting integer value");
    }
}

TEST(ReadFloat, WideningIsExactAndNarrowingIsNearest) {
    // float 64 1.5 into float; float 32 0.1f into double keeps the single-precision value.
    EXPECT_EQ(read_all<float>(hex("cb 3f f8 00 00 00 00 00 00")), 1.5f);
    EXPECT_EQ(read_all<double>(hex("ca 3d cc cc cd")), double(0.1f));
    EXPECT_NE(read_all<double>(hex("ca 3d cc cc cd")), 0.1);
    EXPECT_EQ(read_all<float>(hex("ca 3d cc cc cd")), 0.1f);
    EXPECT_EQ(read_all<double>(hex("cb 3f b9 99 99 99 99 99 9a")), 0.1);
    EXPECT_EQ(read_all<float>(hex("cb 3f b9 99 99 99 99 99 9a")), 0.1f);
    EXPECT_TRUE(std::isinf(read_all<float>(hex("cb 7f ef ff ff ff ff ff ff"))));
    EXPECT_TRUE(std::isnan(read_all<double>(hex("ca 7f c0 00 00"))));
    EXPECT_EQ(read_all<double>(hex("cb 80 00 00 00 00 00 00 00")), 0.0);
    EXPECT_TRUE(std::signbit(read_all<double>(hex("cb 80 00 00 00 00 00 00 00"))));
}

TEST(ReadFloat, IntegersAndOtherFormsAreRefusedWithTheTargetsText) {
    for (const char* bytes :
         {"01", "e0", "cc 01", "d3 00 00 00 00 00 00 00 01", "c0", "c3", "a0", "90"}) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(read_error<double>(hex(bytes)), "expected double value");
        EXPECT_EQ(read_error<float>(hex(bytes)), "expected float value");
    }
}

TEST(ReadBool, AnyByteIsAcceptedAndOnlyC3IsTrue) {
    for (int b = 0; b < 256; ++b) {
        bool value = b != 0xC3;  // the opposite of what must come out
        EXPECT_EQ(read_into({uint8_t(b), 0xC3}, value), "no error at 1") << b;
        EXPECT_EQ(value, b == 0xC3) << b;
    }
}

TEST(ReadString, EveryStrFormAndItsRefusals) {
    EXPECT_EQ(read_all<std::string>(hex("a0")), "");
    EXPECT_EQ(read_all<std::string>(hex("a3 61 00 62")), std::string("a\0b", 3));
    EXPECT_EQ(read_all<std::string>(hex("d9 02 68 69")), "hi");
    EXPECT_EQ(read_all<std::string>(hex("da 00 02 68 69")), "hi");
    EXPECT_EQ(read_all<std::string>(hex("db 00 00 00 02 68 69")), "hi");
    EXPECT_EQ(read_all<std::string>(hex("a2 ff fe")), "\xff\xfe");
    // Binary is never taken for a string, nor anything else.
    for (const char* bytes : {"c4 01 61", "c0", "01", "90", "c5 00 00"}) {
        EXPECT_EQ(read_error<std::string>(hex(bytes)), "inconsistent data while parsing string")
            << bytes;
    }
}

TEST(ReadBinary, EveryBinFormAndItsRefusals) {
    EXPECT_EQ(read_all<msgpack::buffer>(hex("c4 00")).size, 0u);
    EXPECT_NE(read_all<msgpack::buffer>(hex("c4 00")).data, nullptr);
    EXPECT_EQ(read_all<msgpack::buffer>(hex("c4 02 01 02")), msgpack::buffer(hex("01 02")));
    EXPECT_EQ(read_all<msgpack::buffer>(hex("c5 00 02 01 02")), msgpack::buffer(hex("01 02")));
    EXPECT_EQ(read_all<msgpack::buffer>(hex("c6 00 00 00 02 01 02")),
              msgpack::buffer(hex("01 02")));
    for (const char* bytes : {"a0", "a1 61", "d9 00", "c0", "90"}) {
        EXPECT_EQ(read_error<msgpack::buffer>(hex(bytes)),
                  "inconsistent data while parsing binary data")
            << bytes;
    }
}

TEST(ReadBinary, PayloadIsCopiedNotShared) {
    auto bytes = hex("c4 01 aa");
    msgpack::buffer value;
    EXPECT_EQ(read_into(bytes, value), "no error at 3");
    bytes[2] = 0xBB;
    EXPECT_EQ(value.data[0], 0xAA);
}

TEST(ReadContainer, HeadersOfEveryFormAndTheirRefusals) {
    struct Row {
        const char* bytes;
        bool map;
        uint64_t count, position;  // position 0: refused with `error`, nothing consumed
        const char* error;
    };
    const Row rows[] = {
        {"dc 00 02 01 02", false, 2, 3, ""},
        {"df 00 00 00 01 01 02", true, 1, 5, ""},
        {"80 90", true, 0, 1, ""},
        {"90 80", false, 0, 1, ""},
        {"81 01 01", false, 0, 0, "inconsistent data while parsing array"},
        {"91 01", true, 0, 0, "inconsistent data while parsing map"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes);
        const auto bytes = hex(row.bytes);
        msgpack::ReadBuffer in(bytes.data(), bytes.size());
        uint64_t count = 0;
        EXPECT_EQ(error_of([&] {
                      count =
                          row.map ? msgpack::read_map_header(in) : msgpack::read_array_header(in);
                  }),
                  row.error);
        EXPECT_EQ(count, row.count);
        EXPECT_EQ(in.position, row.position);
    }
}

TEST(ReadContainer, VectorIsResizedToTheCountBeforeItsElementsAreRead) {
    std::vector<int> longer(8, 9), shorter{9, 9}, partial{9};
    EXPECT_EQ(read_into(hex("95 01 02 03 04 05"), longer), "no error at 6");
    EXPECT_EQ(longer, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(read_into(hex("95 01 02 03 04 05"), shorter), "no error at 6");
    EXPECT_EQ(shorter, (std::vector<int>{1, 2, 3, 4, 5}));
    // A failing element leaves the vector resized and the elements before it overwritten.
    EXPECT_EQ(read_into(hex("93 07 c0 08"), partial), "expecting integer value at 2");
    EXPECT_EQ(partial, (std::vector<int>{7, 0, 0}));
}

TEST(ReadContainer, VectorOfBoolTakesOneByteEach) {
    const auto bytes = hex("93 c3 c2 00");
    EXPECT_EQ(read_all<std::vector<bool>>(bytes), (std::vector<bool>{true, false, false}));
    std::vector<bool> values(7, true);
    EXPECT_EQ(read_into(bytes, values), "no error at 4");
    EXPECT_EQ(values.size(), 3u);
}

TEST(ReadContainer, MapsTuplesAndPairs) {
    std::map<std::string, int> m{{"old", 5}};
    EXPECT_EQ(read_into(hex("82 a1 61 01 a1 62 02"), m), "no error at 7");
    EXPECT_EQ(m, (std::map<std::string, int>{{"a", 1}, {"b", 2}}));

    EXPECT_EQ((read_all<std::tuple<int, std::string, double>>(
                  hex("93 01 a1 78 cb 40 00 00 00 00 00 00 00"))),
              std::make_tuple(1, std::string("x"), 2.0));
    EXPECT_EQ((read_all<std::pair<uint32_t, int>>(hex("92 ce 00 00 00 07 d1 ff 38"))),
              std::make_pair(uint32_t(7), -200));
}

TEST(ReadContainer, CountErrorsConsumeOnlyTheHeader) {
    std::tuple<int, int, int> triple;
    EXPECT_EQ(read_into(hex("94 01 02 03 04"), triple),
              "reading tuple : wrong number of fields. 4 fields in message, 3 in tuple at 1");
    std::pair<int, int> pair;
    EXPECT_EQ(read_into(hex("91 01"), pair),
              "reading tuple : wrong number of fields. 1 fields in message, 2 in tuple at 1");

    EXPECT_EQ(error_of([] { msgpack::throw_struct_count(4, 3); }),
              "reading struct : wrong number of fields. 4 fields in message, 3 in struct");
    EXPECT_EQ(error_of([] { msgpack::throw_struct_count(4294967296ull, 0); }),
              "reading struct : wrong number of fields. 4294967296 fields in message, 0 in struct");
}

TEST(ReadRuns, VectorsOfNumbersAcceptEveryFormAndStopAtTheFailingValue) {
    const auto ints =
        hex("96 00 ff cc 80 d1 ff 80 cf 00 00 00 01 00 00 00 05 d3 ff ff ff ff ff ff ff fe");
    EXPECT_EQ(read_all<std::vector<int>>(ints), (std::vector<int>{0, -1, 128, -128, 5, -2}));
    EXPECT_EQ(read_all<std::vector<int64_t>>(ints),
              (std::vector<int64_t>{0, -1, 128, -128, 4294967301l, -2}));
    EXPECT_EQ(read_all<std::vector<uint32_t>>(ints),
              (std::vector<uint32_t>{0, 0xFFFFFFFFu, 128, 0xFFFFFF80u, 5, 0xFFFFFFFEu}));
    EXPECT_EQ(read_all<std::vector<uint64_t>>(hex("92 01 cf ff ff ff ff ff ff ff ff")),
              (std::vector<uint64_t>{1, 0xFFFFFFFFFFFFFFFFull}));

    const auto floats = hex("92 ca 3f c0 00 00 cb 3f f8 00 00 00 00 00 00");
    EXPECT_EQ(read_all<std::vector<double>>(floats), (std::vector<double>{1.5, 1.5}));
    EXPECT_EQ(read_all<std::vector<float>>(floats), (std::vector<float>{1.5f, 1.5f}));

    // The third value is a string: two elements written, the cursor at the string.
    std::vector<double> values;
    EXPECT_EQ(read_into(hex("94 cb 3f f0 00 00 00 00 00 00 ca 3f c0 00 00 a1 61 01"), values),
              "expected double value at 15");
    EXPECT_EQ(values, (std::vector<double>{1.0, 1.5, 0.0, 0.0}));

    // A run truncated inside its last value.
    std::vector<long long> longs;
    EXPECT_EQ(read_into(hex("92 01 cd 01"), longs), "unexpected end of data at 2");
    EXPECT_EQ(longs, (std::vector<long long>{1, 0}));
}

TEST(ReadNumber, TakesIntegersAndBothFloatFormsAsDoubleAndRefusesTheRest) {
    // Bytes, the number read, or the error when refused (then nothing is consumed).
    const std::tuple<const char*, double, const char*> rows[] = {
        {"00", 0.0, ""},
        {"e0", -32.0, ""},
        {"cd 01 00", 256.0, ""},
        {"d3 ff ff ff ff ff ff ff fe", -2.0, ""},
        {"ca 3f c0 00 00", 1.5, ""},
        {"cb 3f b9 99 99 99 99 99 9a", 0.1, ""},
        {"a1 41", 0, "expecting integer value"},
        {"cb 3f f0", 0, "unexpected end of data"},
        {"", 0, "unexpected end of data"},
    };
    for (const auto& [text, expected, error] : rows) {
        SCOPED_TRACE(text);
        const std::vector<uint8_t> bytes = hex(text);
        msgpack::ReadBuffer in(bytes.data(), bytes.size());
        double value = 0;
        EXPECT_EQ(error_of([&] { value = msgpack::read_number(in); }), error);
        EXPECT_EQ(value, expected);
        if (*error)
            EXPECT_EQ(in.position, 0u);
        else
            EXPECT_EQ(in.position, bytes.size());
    }
}
