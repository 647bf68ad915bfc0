// Cross-check against msgpack-cxx, an independent implementation of the format: what our
// codec, records and WAMP messages write it decodes to the same values (and, form for form,
// to the same bytes except at the two negative bounds where our integer rule is deliberately
// narrower), and what it writes we read back.

#include <gtest/gtest.h>
#include <msgpack.hpp>

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/wamp.hpp>

#include "support/testing.hpp"

namespace qm = qor::serialization::msgpack;
namespace dt = dax::types;
using test_support::error_of;
using test_support::to_hex;

namespace {

std::mt19937_64 random_bits{7};

// A value of random magnitude: every width of the integer rule gets its share.
int64_t any_int64() {
    const int bits = int(random_bits() % 64);
    const uint64_t magnitude = bits == 0 ? 0 : random_bits() >> (64 - bits);
    return random_bits() % 2 ? int64_t(magnitude) : -int64_t(magnitude) - int64_t(random_bits() % 2);
}
uint64_t any_uint64() {
    const int bits = 1 + int(random_bits() % 64);
    return bits == 64 ? random_bits() : random_bits() >> (64 - bits);
}
double any_double() {
    switch (random_bits() % 4) {
        case 0:
            return double(any_int64());
        case 1:
            return std::ldexp(double(random_bits() % 1000000) - 500000.0, int(random_bits() % 80) - 40);
        case 2: {
            const uint64_t bits = random_bits();
            double d;
            std::memcpy(&d, &bits, 8);
            return std::isnan(d) ? 0.5 : d;
        }
        default:
            return std::numeric_limits<double>::denorm_min() * double(random_bits() % 100);
    }
}
// msgpack-cxx writes an integral double as an integer; where its bytes must be a float form,
// give it a value with a fractional part.
double any_fraction() {
    const double d = any_double();
    if (std::floor(d) != d || std::fabs(d) > 2e19) return d;
    return double(int64_t(random_bits() % 2000001) - 1000000) + 0.5;
}
std::string any_string(size_t max_length = 0) {
    static const size_t lengths[] = {0, 1, 31, 32, 255, 256, 65535, 65536};
    const size_t length = max_length ? random_bits() % (max_length + 1)
                          : random_bits() % 4 == 0 ? lengths[random_bits() % 8]
                                                   : random_bits() % 300;
    std::string s(length, '\0');
    for (auto& c : s) c = char(random_bits());
    return s;
}

std::vector<uint8_t> bytes_of(const qm::buffer& b) { return {b.data, b.data + b.size}; }
template <class T>
std::vector<uint8_t> ours(const T& value) {
    std::vector<uint8_t> bytes;
    using qm::pack;
    using dt::pack;
    pack(bytes, value);
    return bytes;
}
template <class T>
std::vector<uint8_t> theirs(const T& value) {
    msgpack::sbuffer sbuf;
    msgpack::pack(sbuf, value);
    return std::vector<uint8_t>(sbuf.data(), sbuf.data() + sbuf.size());
}
// msgpack-cxx decodes `bytes` as a T, and must take every byte.
template <class T>
T their_read(const std::vector<uint8_t>& bytes) {
    std::size_t offset = 0;
    auto handle = msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size(), offset);
    EXPECT_EQ(offset, bytes.size()) << to_hex(bytes);
    return handle.get().as<T>();
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
using Pair = std::tuple<uint32_t, uint32_t>;
using Mesh = std::tuple<std::vector<Vertex>, std::vector<Pair>, std::vector<std::tuple<uint32_t, uint32_t, uint32_t>>>;
using Vec3 = std::tuple<float, float, float>;
using Details = std::tuple<int, float, float, float, int, float, float, int, int>;
using Result = std::tuple<std::vector<char>, int, Vec3, Vec3, Details>;
using Pose = std::tuple<float, float, float, float, float, float, float>;

}  // namespace

TEST(CrossCheck, IntegersBothWays) {
    for (int i = 0; i < 20000; ++i) {
        const int64_t v = any_int64();
        const uint64_t u = any_uint64();
        SCOPED_TRACE(v);
        const bool narrow_bound = v == -128 || v == -32768;
        EXPECT_EQ(their_read<int64_t>(ours(int64_t(v))), v);
        if (!narrow_bound) {
            EXPECT_EQ(to_hex(ours(int64_t(v))), to_hex(theirs(v)));
        }
        if (v >= std::numeric_limits<int>::min() && v <= std::numeric_limits<int>::max()) {
            EXPECT_EQ(their_read<int>(ours(int(v))), int(v));
            if (!narrow_bound) {
                EXPECT_EQ(to_hex(ours(int(v))), to_hex(theirs(int(v))));
            }
        }
        EXPECT_EQ(their_read<uint64_t>(ours(static_cast<uint64_t>(u))), u);
        EXPECT_EQ(to_hex(ours(static_cast<uint64_t>(u))), to_hex(theirs(u)));
        EXPECT_EQ(their_read<uint32_t>(ours(uint32_t(u))), uint32_t(u));

        const auto bytes = theirs(v);
        EXPECT_EQ(our_read<int64_t>(bytes), v);
        EXPECT_EQ(our_read<long long>(bytes), v);
        EXPECT_EQ(our_read<int>(bytes), int(uint32_t(uint64_t(v))));
        EXPECT_EQ(our_read<uint32_t>(bytes), uint32_t(uint64_t(v)));
        EXPECT_EQ(our_read<uint64_t>(bytes), uint64_t(v));
        EXPECT_EQ(our_read<uint64_t>(theirs(u)), u);
        EXPECT_EQ(our_read<uint32_t>(theirs(u)), uint32_t(u));
    }
    // The two bounds themselves still decode to the right values.
    EXPECT_EQ(their_read<int>(ours(-128)), -128);
    EXPECT_EQ(their_read<int>(ours(-32768)), -32768);
}

TEST(CrossCheck, DoublesStringsAndBinaryBothWays) {
    for (int i = 0; i < 3000; ++i) {
        const double d = any_double();
        EXPECT_EQ(their_read<double>(ours(d)), d);
        EXPECT_EQ(ours(d).front(), 0xcb);
        // They shorten integral doubles to integers; we never do.
        if (std::floor(d) != d) {
            EXPECT_EQ(ours(d), theirs(d));
        }
        const double fraction = any_fraction();
        EXPECT_EQ(our_read<double>(theirs(fraction)), fraction);
        // They write a float as float 32: read exactly as float, widened exactly as double.
        const float f = float(fraction);
        if (std::floor(f) != f) {
            EXPECT_EQ(our_read<float>(theirs(f)), f);
            EXPECT_EQ(our_read<double>(theirs(f)), double(f));
        }

        const std::string s = any_string();
        const std::vector<char> payload(s.begin(), s.end());
        EXPECT_EQ(ours(s), theirs(s));
        EXPECT_EQ(their_read<std::string>(ours(s)), s);
        EXPECT_EQ(our_read<std::string>(theirs(s)), s);
        const qm::buffer block(reinterpret_cast<const uint8_t*>(s.data()), s.size());
        EXPECT_EQ(ours(block), theirs(payload));
        EXPECT_EQ(their_read<std::vector<char>>(ours(block)), payload);
        const qm::buffer back = our_read<qm::buffer>(theirs(payload));
        EXPECT_EQ(std::vector<char>(back.data, back.data + back.size), payload);
    }
}

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

TEST(CrossCheck, ContainersBothWays) {
    using Entry = std::tuple<long long, double, std::string, bool>;
    using Map = std::map<std::string, std::vector<Entry>>;
    for (int i = 0; i < 300; ++i) {
        Map value;
        for (size_t k = random_bits() % 20; k > 0; --k) {
            auto& list = value[any_string(40)];
            list.resize(random_bits() % 20);
            for (auto& e : list)
                e = Entry{any_int64(), any_fraction(), any_string(50), random_bits() % 2 == 0};
        }
        EXPECT_EQ(their_read<Map>(ours(value)), value);
        EXPECT_EQ(our_read<Map>(ours(value)), value);
        const auto bytes = theirs(value);
        EXPECT_EQ(our_read<Map>(bytes), value);
        qm::ReadBuffer in(bytes.data(), bytes.size());
        EXPECT_EQ(qm::skip(in), bytes.size());  // skip walks exactly what they wrote

        std::vector<bool> flags(random_bits() % 40);
        for (size_t f = 0; f < flags.size(); ++f) flags[f] = random_bits() % 2 == 0;
        EXPECT_EQ(their_read<std::vector<bool>>(ours(flags)), flags);
        EXPECT_EQ(our_read<std::vector<bool>>(theirs(flags)), flags);
    }
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

TEST(CrossCheck, RecordsBothWays) {
    for (int round = 0; round < 20; ++round) {
        // Their mesh, with unsigned indices in every width and fractional coordinates.
        Mesh mesh;
        for (int i = 0; i < 30; ++i) {
            const double x = double(int64_t(random_bits()) >> 24) + 0.375;
            const auto a = uint32_t(random_bits() >> (random_bits() % 64));
            const auto b = uint32_t(random_bits() % 200);
            std::get<0>(mesh).emplace_back(x, -x, 0.25);
            std::get<1>(mesh).emplace_back(a, b);
            std::get<2>(mesh).emplace_back(b, a, 4294967295u);
        }
        const auto ours_mesh = our_read<dt::mesh_batch_t>(theirs(mesh));
        EXPECT_EQ(their_read<Mesh>(ours(ours_mesh)), mesh);

        const float fraction = float(round) + 0.5f;
        const Result result(std::vector<char>(size_t(round * 20), 'x'), -round * 1000,
                            Vec3(1.5f, 2.5f, fraction), Vec3(0.5f, -0.5f, 0.25f),
                            Details(round, 1.5f, 2.5f, 3.5f, -70000, 4.5f, 5.5f, 255, -32768));
        const auto step = our_read<dt::integration_result_t>(theirs(result));
        EXPECT_EQ(step.states.size, uint64_t(round * 20));
        EXPECT_EQ(step.details.i5, -70000);
        EXPECT_EQ(their_read<Result>(ours(step)), result);

        const Pose pose(1.5f, -2.5f, 0.1f, 0.75f, 0.125f, -0.5f, fraction / 7.0f);
        EXPECT_EQ(their_read<Pose>(ours(our_read<dt::pose7_t>(theirs(pose)))), pose);

        dt::vector_pair_string_double_t names;
        names.values = {{any_string(20), any_fraction()}, {"", -0.5}};
        using Names = std::tuple<std::vector<std::tuple<std::string, double>>>;
        const auto their_names = std::get<0>(their_read<Names>(ours(names)));
        ASSERT_EQ(their_names.size(), 2u);
        EXPECT_EQ(their_names[0], std::make_tuple(names.values[0].first, names.values[0].second));
    }
}

TEST(CrossCheck, WampMessagesBothWays) {
    using namespace qor::wamp;
    std::vector<uint8_t> scratch;
    Message call(CALL, Id(4294967296ULL), "qor.server.operation.SET_PROPERTY");
    call.details["receive_progress"] = encode_argument(scratch, false);
    call.args = {encode_argument(scratch, std::string("gravity")), encode_argument(scratch, -9.81),
                 encode_argument(scratch, -200)};
    using Args = std::tuple<std::string, double, int>;
    using Call = std::tuple<int, uint64_t, std::map<std::string, bool>, std::string, Args>;
    EXPECT_EQ(their_read<Call>(bytes_of(serialize(call))),
              Call(48, 4294967296ULL, {{"receive_progress", false}},
                   "qor.server.operation.SET_PROPERTY", Args("gravity", -9.81, -200)));

    // An EVENT as another peer writes it: [36, sub, pub, {"topic": ...}, [[1, 2]], {"k": "v"}]
    const auto event = theirs(std::make_tuple(
        36, uint64_t(9007199254740992ULL), 77,
        std::map<std::string, std::string>{{"topic", "qor.server.update"}},
        std::make_tuple(std::vector<int>{1, 2}), std::map<std::string, std::string>{{"k", "v"}}));
    const Message m = parse_message(qm::buffer(event.data(), event.size()));
    EXPECT_EQ(m.type, EVENT);
    EXPECT_EQ(m.subscription.value(), max_id);
    EXPECT_EQ(m.publication.value(), 77u);
    EXPECT_EQ(to_hex(m.details.at("topic")), to_hex(theirs(std::string("qor.server.update"))));
    EXPECT_EQ(to_hex(m.arguments_kw.at("k")), "a1 76");
    std::vector<int> values;
    IncomingMessage(m).fillArgsNS(values);
    EXPECT_EQ(values, (std::vector<int>{1, 2}));
}
