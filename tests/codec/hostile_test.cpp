// Bytes from the network are hostile: every reader and `skip` must refuse truncated and
// malformed input with an error and never read outside the buffer. Inputs are copied into
// heap blocks of exactly their length so that the sanitizer build catches any overread.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <qor/serialization/msgpack.hpp>

#include "support/testing.hpp"

namespace msgpack = qor::serialization::msgpack;
using test_support::error_of;
using test_support::hex;

namespace {

using Reader = std::function<void(msgpack::ReadBuffer&)>;

template <class T>
Reader reader_of() {
    return [](msgpack::ReadBuffer& in) {
        T value{};
        msgpack::read(in, value);
    };
}

// Exactly `count` bytes on the heap: one byte more read is an ASan report.
struct Block {
    std::unique_ptr<uint8_t[]> bytes;
    uint64_t count;
    Block(const uint8_t* from, uint64_t n) : bytes(new uint8_t[n == 0 ? 1 : n]), count(n) {
        std::copy(from, from + n, bytes.get());
    }
    explicit Block(const std::vector<uint8_t>& from) : Block(from.data(), from.size()) {}
    msgpack::ReadBuffer cursor() const { return msgpack::ReadBuffer(bytes.get(), count); }
};

struct ValidRow {
    const char* name;
    const char* bytes;
    Reader reader;
};

std::vector<ValidRow> valid_rows() {
    return {
        {"uint 8", "cc ff", reader_of<int64_t>()},
        {"uint 16", "cd ff ff", reader_of<int>()},
        {"uint 32", "ce ff ff ff ff", reader_of<uint32_t>()},
        {"uint 64", "cf 00 00 00 01 00 00 00 00", reader_of<uint64_t>()},
        {"int 8", "d0 df", reader_of<long long>()},
        {"int 16", "d1 ff 80", reader_of<int>()},
        {"int 32", "d2 ff ff 80 00", reader_of<int64_t>()},
        {"int 64", "d3 ff ff ff ff 7f ff ff ff", reader_of<int64_t>()},
        {"float 32 as float", "ca 3f c0 00 00", reader_of<float>()},
        {"float 32 as double", "ca 3f c0 00 00", reader_of<double>()},
        {"float 64 as float", "cb 3f f8 00 00 00 00 00 00", reader_of<float>()},
        {"float 64 as double", "cb 3f f8 00 00 00 00 00 00", reader_of<double>()},
        {"fixstr", "a3 61 62 63", reader_of<std::string>()},
        {"str 8", "d9 03 61 62 63", reader_of<std::string>()},
        {"str 16", "da 00 03 61 62 63", reader_of<std::string>()},
        {"str 32", "db 00 00 00 03 61 62 63", reader_of<std::string>()},
        {"bin 8", "c4 02 01 02", reader_of<msgpack::buffer>()},
        {"bin 16", "c5 00 02 01 02", reader_of<msgpack::buffer>()},
        {"bin 32", "c6 00 00 00 02 01 02", reader_of<msgpack::buffer>()},
        {"bool", "c3", reader_of<bool>()},
        {"vector<bool>", "93 c3 c2 c3", reader_of<std::vector<bool>>()},
        {"vector<int> array 16", "dc 00 03 01 cc 80 d0 df", reader_of<std::vector<int>>()},
        {"vector<double> array 32", "dd 00 00 00 01 cb 3f f0 00 00 00 00 00 00",
         reader_of<std::vector<double>>()},
        {"vector<string>", "92 a1 61 d9 01 62", reader_of<std::vector<std::string>>()},
        {"map", "82 a1 61 01 a1 62 cd 01 00", reader_of<std::map<std::string, int>>()},
        {"map 16", "de 00 01 a1 61 01", reader_of<std::map<std::string, int>>()},
        {"tuple", "93 01 a1 78 cb 40 00 00 00 00 00 00 00",
         reader_of<std::tuple<int, std::string, double>>()},
        {"pair", "92 ce 00 00 00 07 d1 ff 38", reader_of<std::pair<uint32_t, int>>()},
        {"nested", "92 92 01 02 91 03", reader_of<std::vector<std::vector<int>>>()},
        // Runs of same-form records, which skip passes over a record at a time, ending in a
        // record of another form.
        {"records", "93 92 01 02 92 03 04 92 05 cc ff", reader_of<std::vector<std::vector<int>>>()},
        {"float records",
         "93 92 cb 3ff0000000000000 cb 4000000000000000 92 cb 4008000000000000 cb "
         "4010000000000000 92 ca 3f800000 cb 4000000000000000",
         reader_of<std::vector<std::vector<double>>>()},
        // Index triples checked four records at a time, the sixth of another form.
        {"triple records",
         "98 93 ce00000001 ce00000002 ce00000003 93 ce00000004 ce00000005 ce00000006 "
         "93 ce00000007 ce00000008 ce00000009 93 ce0000000a ce0000000b ce0000000c "
         "93 ce0000000d ce0000000e ce0000000f 93 ce00000010 ce00000011 cc12 "
         "93 ce00000013 ce00000014 ce00000015 93 ce00000016 ce00000017 ce00000018",
         reader_of<std::vector<std::vector<uint32_t>>>()},
    };
}

}  // namespace

TEST(Truncation, EveryPrefixOfEveryValidValueFailsWithEndOfData) {
    for (const auto& row : valid_rows()) {
        SCOPED_TRACE(row.name);
        const auto whole = hex(row.bytes);
        {
            const Block block(whole);
            auto in = block.cursor();
            row.reader(in);
            EXPECT_EQ(in.position, whole.size());
            auto again = block.cursor();
            EXPECT_EQ(msgpack::skip(again), whole.size());
            EXPECT_EQ(again.position, whole.size());
        }
        for (uint64_t length = 0; length < whole.size(); ++length) {
            SCOPED_TRACE(length);
            const Block block(whole.data(), length);
            auto in = block.cursor();
            EXPECT_EQ(error_of([&] { row.reader(in); }), "unexpected end of data");
            EXPECT_LE(in.position, length);
            auto skipping = block.cursor();
            EXPECT_EQ(error_of([&] { msgpack::skip(skipping); }), "unexpected end of data");
            EXPECT_EQ(skipping.position, 0u);
        }
    }
}

TEST(HostileHeaders, CountsThatCannotFitAreRefusedBeforeAnyAllocation) {
    const std::pair<const char*, Reader> rows[] = {
        {"dd ff ff ff ff", reader_of<std::vector<std::vector<int>>>()},
        {"dd ff ff ff ff", reader_of<std::vector<bool>>()},
        {"dd 00 00 00 02 01", reader_of<std::vector<int>>()},
        {"dc ff ff 00", reader_of<std::vector<std::string>>()},
        {"df ff ff ff ff", reader_of<std::map<std::string, int>>()},
        // Two entries need at least four bytes.
        {"82 01 01 01", reader_of<std::map<std::string, int>>()},
        {"db ff ff ff ff 61", reader_of<std::string>()},
        {"c6 ff ff ff ff 61", reader_of<msgpack::buffer>()},
        {"c6 ff ff ff fb 00 00 00 00", reader_of<msgpack::buffer>()},
    };
    for (const auto& [text, reader] : rows) {
        SCOPED_TRACE(text);
        const Block block(hex(text));
        auto in = block.cursor();
        EXPECT_EQ(error_of([&in, &read = reader] { read(in); }), "unexpected end of data");
        EXPECT_EQ(in.position, 0u);
    }
}

TEST(HostileHeaders, RefusedHeaderLeavesTheTargetUntouched) {
    const Block block(hex("dd ff ff ff ff 01"));
    auto in = block.cursor();
    std::vector<int64_t> values{1, 2};
    EXPECT_EQ(error_of([&] { msgpack::read(in, values); }), "unexpected end of data");
    EXPECT_EQ(values, (std::vector<int64_t>{1, 2}));
}

TEST(Skip, WalksEveryFormIncludingExtAndNil) {
    // Bytes, and the size of their first value: the rest of the row must be left alone.
    const std::pair<const char*, uint64_t> rows[] = {
        {"c0 ff", 1},
        {"c2 ff", 1},
        {"7f ff", 1},
        {"e0 ff", 1},
        {"a2 61 62 ff", 3},
        {"d9 01 61 ff", 3},
        {"c4 00 ff", 2},
        {"c5 00 01 00 ff", 4},
        {"d4 01 aa ff", 3},
        {"d5 01 aa bb ff", 4},
        {"d6 01 00 00 00 00 ff", 6},
        {"d7 01 00 00 00 00 00 00 00 00 ff", 10},
        {"d8 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ff", 18},
        {"c7 02 05 aa bb ff", 5},
        {"c8 00 01 05 aa ff", 5},
        {"c9 00 00 00 01 05 aa ff", 7},
        {"ca 00 00 00 00 ff", 5},
        {"cb 00 00 00 00 00 00 00 00 ff", 9},
        {"cf 00 00 00 00 00 00 00 00 ff", 9},
        {"d3 00 00 00 00 00 00 00 00 ff", 9},
        {"90 ff", 1},
        {"80 ff", 1},
        {"92 01 a1 61 ff", 4},
        {"82 01 02 a1 61 91 c0 ff", 7},
        {"dc 00 01 c3 ff", 4},
        {"de 00 01 01 02 ff", 5},
        {"93 81 01 92 02 03 c4 01 00 d4 00 00 ff", 12},
        {"92 92 01 02 91 92 03 04 ff", 8},
        {"82 91 01 91 02 91 03 91 04 ff", 9},
        {"93 92 01 02 92 03 04 93 05 06 07 ff", 11},
    };
    for (const auto& [bytes, size] : rows) {
        SCOPED_TRACE(bytes);
        const Block block(hex(bytes));
        auto in = block.cursor();
        EXPECT_EQ(msgpack::skip(in), size);
        EXPECT_EQ(in.position, size);
    }
}

TEST(Skip, DeepNestingNeedsNoStack) {
    constexpr size_t depth = 100000;
    std::vector<uint8_t> arrays(depth, 0x91);
    arrays.push_back(0x01);
    const Block block(arrays);
    auto in = block.cursor();
    EXPECT_EQ(msgpack::skip(in), depth + 1);

    // The same nest with its innermost value missing.
    const Block cut(arrays.data(), depth);
    auto truncated = cut.cursor();
    EXPECT_EQ(error_of([&] { msgpack::skip(truncated); }), "unexpected end of data");

    // Maps nest through their values: {1: {1: ... 1}}.
    std::vector<uint8_t> maps;
    for (size_t i = 0; i < depth; ++i) {
        maps.push_back(0x81);
        maps.push_back(0x01);
    }
    maps.push_back(0xC0);
    const Block map_block(maps);
    auto m = map_block.cursor();
    EXPECT_EQ(msgpack::skip(m), maps.size());
}

// Each reader from a given position: its error (none, or the first fault it meets: a type error
// wins over truncation) and where it leaves the cursor.
TEST(HostileInput, EachFaultIsNamedAndTheCursorStaysAtTheValue) {
    const Reader skip = [](msgpack::ReadBuffer& in) { msgpack::skip(in); };
    const Reader array = [](msgpack::ReadBuffer& in) { msgpack::read_array_header(in); };
    const Reader map = [](msgpack::ReadBuffer& in) { msgpack::read_map_header(in); };
    // Bytes, the position read from, the reader, its error, and the position it leaves.
    const std::tuple<const char*, uint64_t, Reader, const char*, uint64_t> rows[] = {
        {"01 cd 01", 1, reader_of<int>(), "unexpected end of data", 1},
        // A str 32 header cut short is still a string.
        {"db 00", 0, reader_of<int>(), "expecting integer value", 0},
        {"db 00", 0, reader_of<double>(), "expected double value", 0},
        {"db 00", 0, reader_of<msgpack::buffer>(), "inconsistent data while parsing binary data",
         0},
        // A cursor past its end reads nothing.
        {"01 02", 5, reader_of<int>(), "unexpected end of data", 5},
        {"01 02", 5, reader_of<bool>(), "unexpected end of data", 5},
        {"01 02", 5, skip, "unexpected end of data", 5},
        {"01 02", 5, array, "unexpected end of data", 5},
        // Counts exactly at the limit of the bytes left.
        {"93 01 02 03", 0, array, "", 1},
        {"82 01 02 03 04", 0, map, "", 1},
        {"c1", 0, skip, "invalid type byte 0xC1", 0},
        {"91 c1", 0, skip, "invalid type byte 0xC1", 0},
        {"82 01 02 03 c1", 0, skip, "invalid type byte 0xC1", 0},
        // Nested array 32 headers each claiming four billion elements fail fast.
        {"dd ff ff ff ff dd ff ff ff ff dd ff ff ff ff 01", 0, skip, "unexpected end of data", 0},
    };
    for (const auto& [text, from, reader, error, position] : rows) {
        SCOPED_TRACE(text);
        const Block block(hex(text));
        auto in = block.cursor();
        in.position = from;
        EXPECT_EQ(error_of([&in, &read = reader] { read(in); }), error);
        EXPECT_EQ(in.position, position);
    }
}
