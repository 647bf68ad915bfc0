// Every record: random instances written and read back, checked against the field-by-field
// reference; every truncation of valid encodings refused.

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace {

using namespace dax::types;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

// ---- random values ------------------------------------------------------------------------

struct Filler {
    std::mt19937_64 rng;
    unsigned max_elements = 3;

    explicit Filler(uint64_t seed) : rng(seed) {}

    // Integers spread over every width so each encoded form turns up.
    int64_t spread() {
        const int shift = static_cast<int>(rng() % 64);
        const auto magnitude = static_cast<int64_t>(rng() >> shift >> 1);
        return (rng() & 1) ? -magnitude : magnitude;
    }

    void operator()(int& v) { v = static_cast<int>(spread()); }
    void operator()(uint32_t& v) { v = static_cast<uint32_t>(spread()); }
    void operator()(bool& v) { v = rng() & 1; }
    void operator()(float& v) {
        v = std::ldexp(static_cast<float>(static_cast<int32_t>(rng())),
                       static_cast<int>(rng() % 80) - 60);
    }
    void operator()(double& v) {
        v = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())),
                       static_cast<int>(rng() % 400) - 200);
    }
    void operator()(std::string& v) {
        v.resize(rng() % 40);
        for (char& c : v) c = static_cast<char>(rng());
    }
    void operator()(mp::buffer& v) {
        std::vector<uint8_t> bytes(rng() % 300);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        v = mp::buffer(bytes);
    }
    void operator()(std::vector<bool>::reference v) { v = rng() & 1; }
    template <class E>
    void operator()(std::vector<E>& v) {
        v.resize(rng() % (max_elements + 1));
        for (auto&& e : v) (*this)(e);  // a vector<bool> hands out proxies
    }
    template <class T, std::enable_if_t<dax::types::is_record_v<T>, int> = 0>
    void operator()(T& record) {
        std::apply([this](auto&... f) { ((*this)(f), ...); }, record.fields());
    }
};

template <class T>
T random_record(uint64_t seed) {
    Filler fill(seed);
    T value;
    fill(value);
    return value;
}

// ---- reference encoder and decoder ----------------------------------------------------------
// Field by field through the codec's scalar functions only: what every record must produce and
// accept, whatever shortcuts the records take.

template <class T>
constexpr bool is_list_v = false;
template <class E>
constexpr bool is_list_v<std::vector<E>> = !std::is_same_v<E, bool>;  // flags go whole

template <class T>
void ref_pack(std::vector<uint8_t>& out, const T& v) {
    if constexpr (dax::types::is_record_v<T>) {
        mp::pack_array_header(out, dax::types::field_count_v<T>);
        std::apply([&out](const auto&... f) { (ref_pack(out, f), ...); }, v.fields());
    } else if constexpr (is_list_v<T>) {
        mp::pack_array_header(out, v.size());
        for (const auto& e : v) ref_pack(out, e);
    } else if constexpr (std::is_same_v<T, float>) {
        mp::pack(out, static_cast<double>(v));
    } else {
        mp::pack(out, v);
    }
}

template <class T>
void ref_read(mp::ReadBuffer& in, T& v) {
    if constexpr (dax::types::is_record_v<T>) {
        const uint64_t n = mp::read_array_header(in);
        if (n != dax::types::field_count_v<T>)
            mp::throw_struct_count(n, dax::types::field_count_v<T>);
        std::apply([&in](auto&... f) { (ref_read(in, f), ...); }, v.fields());
    } else if constexpr (is_list_v<T>) {
        v.resize(mp::read_array_header(in));
        for (auto& e : v) ref_read(in, e);
    } else {
        mp::read(in, v);
    }
}

// Written by the records and by the reference, read back by both: the bytes, the values read
// and what the reader consumed must all agree.
template <class T>
void check_against_reference(const T& value) {
    const std::vector<uint8_t> bytes = encode(value);
    std::vector<uint8_t> reference;
    ref_pack(reference, value);
    ASSERT_EQ(to_hex(bytes), to_hex(reference));
    T fast, slow;
    mp::ReadBuffer a(bytes.data(), bytes.size()), b(bytes.data(), bytes.size());
    read(a, fast);
    ref_read(b, slow);
    EXPECT_EQ(a.position, bytes.size());
    EXPECT_TRUE(same(fast, slow));
    EXPECT_TRUE(same(fast, value)) << to_hex(bytes);
}

template <class T>
class EveryRecord : public ::testing::Test {};

using AllRecords = ::testing::Types<
    vec2f_t, vec3f_t, vec3d_t, quat4f_t, pose7_t, vec6d_t, int_list_t, float_list_t, double_list_t,
    step_details_t, integration_result_t, index_pair_t, index_triple_t, mesh_batch_t, mesh_info_t,
    vector_bool_t, vector_string_t, string_double_t, vector_pair_string_double_t, component_data_t,
    art_body_t, art_a_t, art_b_t, art_c_t, art_e_t, art_d_t, art_frame_t, kinect_joint_t,
    kinect_body_t, kinect_frame_t, leap_bone_t, leap_finger_t, leap_hand_t, leap_frame_t,
    moticon_side_t, moticon_frame_t, openvr_device_t, openvr_frame_t, optitrack_body_t,
    optitrack_frame_t, xsens_segment_t, xsens_frame_t>;
TYPED_TEST_SUITE(EveryRecord, AllRecords);

TYPED_TEST(EveryRecord, RandomInstancesRoundTrip) {
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        check_against_reference(random_record<TypeParam>(seed));
    }
}

TYPED_TEST(EveryRecord, EveryTruncationIsRefused) {
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        const std::vector<uint8_t> bytes = encode(random_record<TypeParam>(seed));
        for (std::size_t n = 0; n < bytes.size(); ++n) {
            // A copy of exactly n bytes, so that the sanitizer sees any read past the end.
            const std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + n);
            ASSERT_EQ(read_error<TypeParam>(prefix), "unexpected end of data")
                << "seed " << seed << ", " << n << " of " << bytes.size() << " bytes";
        }
    }
}

// ---- the fixed-size shortcut against the field-by-field reference -----------------------------

double random_bits_double(std::mt19937_64& rng) {
    const uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

TEST(FixedSizeRecords, LongListsMatchTheReferenceBothWays) {
    // Coordinates of any bit pattern (NaN payloads, infinities, subnormals), indices of every
    // width up to the largest.
    std::mt19937_64 rng(7);
    Filler fill(5);
    fill.max_elements = 3000;
    mesh_batch_t mesh;
    fill(mesh);
    for (auto& v : mesh.vertices)
        v = {random_bits_double(rng), random_bits_double(rng), random_bits_double(rng)};
    for (auto& t : mesh.triangles) t.c = 4294967295u;
    check_against_reference(mesh);
    fill.max_elements = 200;
    std::vector<pose7_t> poses;
    std::vector<moticon_side_t> sides;
    std::vector<vec6d_t> sixes;
    fill(poses);
    fill(sides);
    fill(sixes);
    check_against_reference(poses);
    check_against_reference(sides);
    check_against_reference(sixes);
    // Inside records that are not fixed-size themselves.
    check_against_reference(random_record<openvr_frame_t>(3));
    check_against_reference(random_record<art_frame_t>(3));
}

}  // namespace
