// Cross-check with msgpack-cxx, an independent implementation of the format: it decodes what the
// records write, and the records read what it writes (its smallest integer forms and float 32).

#include <gtest/gtest.h>

#include <msgpack.hpp>

#include "record_testing.hpp"

namespace {

namespace dt = dax::types;
using record_testing::decode;
using record_testing::encode;
using record_testing::Filler;
using record_testing::random_record;
using record_testing::same;

using Vertex = std::tuple<double, double, double>;
using Pair = std::tuple<uint32_t, uint32_t>;
using Triple = std::tuple<uint32_t, uint32_t, uint32_t>;
using Mesh = std::tuple<std::vector<Vertex>, std::vector<Pair>, std::vector<Triple>>;
using Vec3 = std::tuple<float, float, float>;
using Details = std::tuple<int, float, float, float, int, float, float, int, int>;
using Result = std::tuple<std::vector<char>, int, Vec3, Vec3, Details>;
using Pose = std::tuple<float, float, float, float, float, float, float>;

template <class T>
T unpack_as(const std::vector<uint8_t>& bytes) {
    const msgpack::object_handle handle =
        msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return handle.get().as<T>();
}

template <class T>
std::vector<uint8_t> pack_with_msgpack_cxx(const T& value) {
    msgpack::sbuffer out;
    msgpack::pack(out, value);
    return std::vector<uint8_t>(out.data(), out.data() + out.size());
}

TEST(MsgpackCxx, DecodesOurMesh) {
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Filler fill(seed);
        fill.max_elements = 40;
        dt::mesh_batch_t mesh;
        fill(mesh);
        const Mesh theirs = unpack_as<Mesh>(encode(mesh));
        ASSERT_EQ(std::get<0>(theirs).size(), mesh.vertices.size());
        ASSERT_EQ(std::get<1>(theirs).size(), mesh.pairs.size());
        ASSERT_EQ(std::get<2>(theirs).size(), mesh.triangles.size());
        for (std::size_t i = 0; i < mesh.vertices.size(); ++i) {
            const auto& v = mesh.vertices[i];
            EXPECT_EQ(std::get<0>(theirs)[i], Vertex(v.x, v.y, v.z));
        }
        for (std::size_t i = 0; i < mesh.pairs.size(); ++i)
            EXPECT_EQ(std::get<1>(theirs)[i], Pair(mesh.pairs[i].a, mesh.pairs[i].b));
        for (std::size_t i = 0; i < mesh.triangles.size(); ++i) {
            const auto& t = mesh.triangles[i];
            EXPECT_EQ(std::get<2>(theirs)[i], Triple(t.a, t.b, t.c));
        }
    }
}

TEST(MsgpackCxx, DecodesOurStepResultAndLists) {
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        const auto r = random_record<dt::integration_result_t>(seed);
        const Result theirs = unpack_as<Result>(encode(r));
        EXPECT_EQ(std::get<0>(theirs),
                  std::vector<char>(r.states.data, r.states.data + r.states.size));
        EXPECT_EQ(std::get<1>(theirs), r.value_int);
        EXPECT_EQ(std::get<2>(theirs), Vec3(r.vec_a.x, r.vec_a.y, r.vec_a.z));
        EXPECT_EQ(std::get<3>(theirs), Vec3(r.vec_b.x, r.vec_b.y, r.vec_b.z));
        const auto& d = r.details;
        EXPECT_EQ(std::get<4>(theirs),
                  Details(d.i1, d.f2, d.f3, d.f4, d.i5, d.f6, d.f7, d.i8, d.i9));

        const auto names = random_record<dt::vector_pair_string_double_t>(seed);
        const auto theirs_names =
            unpack_as<std::tuple<std::vector<std::tuple<std::string, double>>>>(encode(names));
        ASSERT_EQ(std::get<0>(theirs_names).size(), names.values.size());
        for (std::size_t i = 0; i < names.values.size(); ++i)
            EXPECT_EQ(std::get<0>(theirs_names)[i],
                      std::make_tuple(names.values[i].first, names.values[i].second));

        const auto flags = random_record<dt::vector_bool_t>(seed);
        EXPECT_EQ(std::get<0>(unpack_as<std::tuple<std::vector<bool>>>(encode(flags))),
                  flags.values);
    }
}

TEST(MsgpackCxx, WeReadWhatItWrites) {
    // msgpack-cxx writes unsigned values in their smallest form and floats as float 32, but a
    // float or double with an integral value as an integer (see IntegralFloatsAreRefused), so
    // the values below all have a fraction.
    std::mt19937_64 rng(3);
    for (int round = 0; round < 20; ++round) {
        Mesh theirs;
        dt::mesh_batch_t expected;
        for (int i = 0; i < 30; ++i) {
            const double x = static_cast<double>(static_cast<int64_t>(rng()) >> 24) + 0.375;
            std::get<0>(theirs).emplace_back(x, -x, 0.25);
            expected.vertices.push_back({x, -x, 0.25});
            const auto a = static_cast<uint32_t>(rng() >> (rng() % 64));
            const auto b = static_cast<uint32_t>(rng() % 200);
            std::get<1>(theirs).emplace_back(a, b);
            expected.pairs.push_back({a, b});
            std::get<2>(theirs).emplace_back(b, a, 4294967295u);
            expected.triangles.push_back({b, a, 4294967295u});
        }
        uint64_t consumed = 0;
        const auto bytes = pack_with_msgpack_cxx(theirs);
        EXPECT_TRUE(same(decode<dt::mesh_batch_t>(bytes, &consumed), expected));
        EXPECT_EQ(consumed, bytes.size());

        const float fraction = static_cast<float>(round) + 0.5f;
        const Pose pose(1.5f, -2.5f, 0.1f, 0.75f, 0.125f, -0.5f, fraction / 7.0f);
        const auto ours = decode<dt::pose7_t>(pack_with_msgpack_cxx(pose));
        EXPECT_EQ(ours.y, -2.5f);
        EXPECT_EQ(ours.z, 0.1f);
        EXPECT_EQ(ours.q3, fraction / 7.0f);

        const Result result(std::vector<char>(static_cast<std::size_t>(round * 20), 'x'),
                            -round * 1000, Vec3(1.5f, 2.5f, fraction), Vec3(0.5f, -0.5f, 0.25f),
                            Details(round, 1.5f, 2.5f, 3.5f, -70000, 4.5f, 5.5f, 255, -32768));
        const auto step = decode<dt::integration_result_t>(pack_with_msgpack_cxx(result));
        EXPECT_EQ(step.states.size, static_cast<uint64_t>(round * 20));
        EXPECT_EQ(step.value_int, -round * 1000);
        EXPECT_EQ(step.vec_a.z, fraction);
        EXPECT_EQ(step.details.i5, -70000);
        EXPECT_EQ(step.details.i8, 255);
        EXPECT_EQ(step.details.i9, -32768);
        EXPECT_EQ(step.details.f7, 5.5f);
    }
}

TEST(MsgpackCxx, IntegralFloatsAreRefused) {
    // A peer that shortens 1.0 to the integer 1 breaks the float rule: the readers name it.
    EXPECT_EQ(record_testing::read_error<dt::pose7_t>(
                  pack_with_msgpack_cxx(Pose(0.5f, 0.5f, 0.5f, 1.0f, 0.5f, 0.5f, 0.5f))),
              "expected float value");
    EXPECT_EQ(record_testing::read_error<dt::vec3d_t>(pack_with_msgpack_cxx(Vertex(0.5, 2.0, 0.5))),
              "expected double value");
}

}  // namespace
