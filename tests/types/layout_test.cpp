// Exact bytes of each kind of record, both ways, and the forms the readers accept.

#include <gtest/gtest.h>

#include <limits>

#include "support/testing.hpp"

namespace user_side {
// Records declared outside dax::types, as an application or a plug-in would.
struct leg_t {
    dax::types::pose7_t pose;
    double weight = 0;
    DAX_RECORD_FIELDS(pose, weight)
};
struct robot_t {
    std::string name;
    std::vector<leg_t> legs;
    DAX_RECORD_FIELDS(name, legs)
};
}  // namespace user_side

namespace {

using namespace dax::types;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

// Float 64 bodies of the values used below.
const std::string D0 = "CB 0000000000000000 ";
const std::string D1 = "CB 3FF0000000000000 ";
const std::string D2 = "CB 4000000000000000 ";
const std::string D3 = "CB 4008000000000000 ";
const std::string DHALF = "CB 3FE0000000000000 ";
const std::string DM2 = "CB C000000000000000 ";

// Writes `value`, compares with `expected_hex`, reads the bytes back and compares field-wise.
template <class T>
void expect_layout(const T& value, const std::string& expected_hex) {
    const std::vector<uint8_t> expected = hex(expected_hex);
    const std::vector<uint8_t> written = encode(value);
    EXPECT_EQ(to_hex(written), to_hex(expected));
    uint64_t consumed = 0;
    const T back = decode<T>(expected, &consumed);
    EXPECT_EQ(consumed, expected.size());
    EXPECT_TRUE(same(back, value)) << "read back differs for " << to_hex(expected);
}

TEST(RecordLayout, Mesh) {
    expect_layout(mesh_batch_t{}, "93 90 90 90");
    // Vertices, pairs, triangles.
    const mesh_batch_t mesh{{{1.0, -2.0, 0.5}}, {{0, 4294967295u}}, {{1, 2, 4294967295u}}};
    expect_layout(mesh, "93 91 93 " + D1 + DM2 + DHALF +
                            "91 92 CE 00000000 CE FFFFFFFF "
                            "91 93 CE 00000001 CE 00000002 CE FFFFFFFF");
    // Sixteen vertices switch the vertex array to array 16.
    const mesh_batch_t many{std::vector<vec3d_t>(16), {}, {}};
    std::string body;
    for (int i = 0; i < 16; ++i) body += "93 " + D0 + D0 + D0;
    expect_layout(many, "93 DC 0010 " + body + "90 90");

    expect_layout(mesh_info_t{1, -1, 200, "hi"}, "94 01 FF CC C8 A2 6869");
}

TEST(RecordLayout, IntegrationResult) {
    const integration_result_t r{mp::buffer(std::vector<uint8_t>{0x01, 0x02}),
                                 -33,
                                 {1, 2, 3},
                                 {0.5f, 0, -2},
                                 {128, 1, 0, 0, -1, 0, 0, 0, 65536}};
    expect_layout(r, "95 C4 02 0102 D0 DF 93 " + D1 + D2 + D3 + "93 " + DHALF + D0 + DM2 +
                         "99 CC 80 " + D1 + D0 + D0 + "FF " + D0 + D0 + "00 CE 00010000");
    // An empty state block is still a bin value.
    expect_layout(integration_result_t{}, "95 C4 00 00 93 " + D0 + D0 + D0 + "93 " + D0 + D0 + D0 +
                                              "99 00 " + D0 + D0 + D0 + "00 " + D0 + D0 + "00 00");
}

TEST(RecordLayout, ListsAndPoses) {
    expect_layout(vector_bool_t{{true, false}}, "91 92 C3 C2");
    expect_layout(vector_string_t{{"a", ""}}, "91 92 A1 61 A0");
    expect_layout(vector_string_t{}, "91 90");
    expect_layout(vector_pair_string_double_t{{{"x", 1.0}, {"", -2.0}}},
                  "91 92 92 A1 78 " + D1 + "92 A0 " + DM2);
    expect_layout(component_data_t{"a", "bc"}, "92 A1 61 A2 6263");
    expect_layout(int_list_t{{0, -1, 300}}, "91 93 00 FF CD 012C");
    expect_layout(double_list_t{{2.0}}, "91 91 " + D2);
    // Single precision travels as float 64.
    expect_layout(float_list_t{{0.5f, -2.0f}}, "91 92 " + DHALF + DM2);
    expect_layout(pose7_t{}, "97 " + D0 + D0 + D0 + D1 + D0 + D0 + D0);
    expect_layout(pose7_t{1, 2, 3, 0.5f, 0, 0, -2}, "97 " + D1 + D2 + D3 + DHALF + D0 + D0 + DM2);
    expect_layout(quat4f_t{1, 0, 0, 2}, "94 " + D1 + D0 + D0 + D2);
    expect_layout(vec2f_t{3, 0.5f}, "92 " + D3 + DHALF);
    expect_layout(vec6d_t{1, 2, 3, 0, 0.5, -2}, "96 " + D1 + D2 + D3 + D0 + DHALF + DM2);
}

TEST(RecordLayout, DeviceFrames) {
    expect_layout(xsens_frame_t{}, "91 90");
    xsens_frame_t xsens;
    xsens.segments.push_back({7, -2, {1, 0, 0, 0}, {0, 0, 2}, {3, 0, 0}});
    expect_layout(xsens, "91 91 95 07 FE 94 " + D1 + D0 + D0 + D0 + "93 " + D0 + D0 + D2 + "93 " +
                             D3 + D0 + D0);

    moticon_frame_t moticon;
    moticon.left = {{1, 2}, 3};
    moticon.right = {{0.5f, 0}, -2};
    expect_layout(moticon, "92 92 92 " + D1 + D2 + D3 + "92 92 " + DHALF + D0 + DM2);

    expect_layout(kinect_frame_t{}, "92 00 90");
    kinect_frame_t kinect;
    kinect.i1 = 1;
    kinect.bodies.push_back({5, {{1, 2, pose7_t{}, 3}}});
    const std::string identity = "97 " + D0 + D0 + D0 + D1 + D0 + D0 + D0;
    expect_layout(kinect, "92 01 91 92 05 91 94 01 02 " + identity + "03");

    openvr_frame_t openvr;
    openvr.device_a.b1 = true;
    openvr.ints_b.values = {4};
    const std::string zero6 = "96 " + D0 + D0 + D0 + D0 + D0 + D0;
    const std::string device_off = "96 C2 C2 " + identity + zero6 + "00 00 ";
    expect_layout(openvr, "96 96 C3 C2 " + identity + zero6 + "00 00 " + device_off + device_off +
                              "91 90 91 91 04 90");

    optitrack_frame_t opti;
    opti.i1 = -1;
    opti.f1 = 2;
    opti.bodies.push_back({3, 0.5f, pose7_t{}});
    expect_layout(opti, "93 FF " + D2 + "91 93 03 " + DHALF + identity);

    leap_frame_t leap;
    leap.hands.emplace_back();
    leap.hands[0].b1 = true;
    leap.hands[0].fingers.push_back({1, 2, {{1, 2, 3, pose7_t{}, 0.5f, 1}}});
    expect_layout(leap, "92 00 91 99 00 C3 " + D0 + identity + identity + identity + D0 + D0 +
                            "91 93 01 02 91 96 01 02 03 " + identity + DHALF + D1);

    art_frame_t art;
    art.i1 = 9;
    art.list_a.push_back({1, {pose7_t{}, 2, 3}});
    art.list_b.push_back({1, 2, {pose7_t{}, 0, 0}});
    art.list_c.push_back({1, pose7_t{}, 0.5f, 2, {{3}}, {{1.0}}});
    art.list_d.push_back({1, pose7_t{}, 2, true, 3, {{pose7_t{}, 1, {{2}}, {}}}});
    expect_layout(art,
                  "95 09 "
                  "91 92 01 93 " +
                      identity + D2 + D3 + "91 93 01 02 93 " + identity + D0 + D0 + "91 96 01 " +
                      identity + DHALF + "02 91 91 03 91 91 " + D1 + "91 96 01 " + identity + D2 +
                      "C3 03 91 94 " + identity + D1 + "91 91 " + D2 + "91 90");
}

TEST(RecordLayout, RecordsDeclaredElsewhereNest) {
    expect_layout(user_side::robot_t{"r", {{pose7_t{}, 0.5}}},
                  "92 A1 72 91 92 97 " + D0 + D0 + D0 + D1 + D0 + D0 + D0 + DHALF);
    EXPECT_EQ(read_error<user_side::robot_t>(hex("92 A1 72 91 93 00 00 00")),
              "reading struct : wrong number of fields. 3 fields in message, 2 in struct");
}

// ---- forms accepted on reading ----------------------------------------------------------------

TEST(RecordAccepts, IndicesInEveryIntegerFormKeepTheirLow32Bits) {
    // fixint, negative fixint, uint 8, int 16, uint 64 and int 64 in one triangle list, the
    // fixed five-byte form between them.
    const auto mesh =
        decode<mesh_batch_t>(hex("93 90 90 94 "
                                 "93 05 FF CC C8 "
                                 "93 CE FFFFFFFF E0 D1 FF80 "
                                 "93 CF 0000000100000002 D3 FFFFFFFFFFFFFFFE CE 00000003 "
                                 "93 CE 00000004 CE 00000005 CE 00000006"));
    const std::vector<index_triple_t> expected = {{5, 4294967295u, 200},
                                                  {4294967295u, 0xFFFFFFE0u, 0xFFFFFF80u},
                                                  {2, 0xFFFFFFFEu, 3},
                                                  {4, 5, 6}};
    EXPECT_TRUE(same(mesh.triangles, expected)) << to_hex(encode(mesh));
}

TEST(RecordAccepts, SinglePrecisionFromBothFloatForms) {
    // Float 64 is narrowed to the nearest single-precision value, float 32 taken as it is.
    const auto pose =
        decode<pose7_t>(hex("97 CB 3FB999999999999A CA 3F800000 CB 4000000000000000 "
                            "CA 3F000000 CA 00000000 CA 80000000 CB BFF0000000000000"));
    // Compared bitwise: the negative zero stays negative.
    EXPECT_TRUE(same(pose, pose7_t{0.1f, 1, 2, 0.5f, 0, -0.0f, -1})) << to_hex(encode(pose));
}

TEST(RecordAccepts, DoublesFromFloat32AreWidenedExactly) {
    mesh_batch_t mesh = decode<mesh_batch_t>(
        hex("93 92 93 CA 3DCCCCCD " + D1 + D2 + "93 " + D3 + D0 + "CA 3F000000 90 90"));
    const std::vector<vec3d_t> expected = {{static_cast<double>(0.1f), 1, 2}, {3, 0, 0.5}};
    EXPECT_TRUE(same(mesh.vertices, expected)) << to_hex(encode(mesh));

    // Plain number lists mix the forms the same way.
    const auto doubles = decode<double_list_t>(hex("91 93 CA 3F800000 " + D2 + "CA 3F000000"));
    EXPECT_EQ(doubles.values, (std::vector<double>{1.0, 2.0, 0.5}));
    const auto floats = decode<float_list_t>(hex("91 92 CB 3FB999999999999A CA 3F800000"));
    EXPECT_EQ(floats.values, (std::vector<float>{0.1f, 1.0f}));
    EXPECT_EQ(read_error<double_list_t>(hex("91 92 " + D2 + "01")), "expected double value");
}

TEST(RecordAccepts, BooleansAreTrueOnlyFor0xC3AndTakeOneByte) {
    const auto flags = decode<vector_bool_t>(hex("91 93 C3 C2 00"));
    EXPECT_EQ(flags.values, (std::vector<bool>{true, false, false}));

    // Whatever byte stands for the flag, the fields behind it (a fixed-size pose among them)
    // land where they belong.
    for (const char* flag : {"C2", "00", "01", "C0", "FF", "C3"}) {
        const bool expected = std::string(flag) == "C3";
        const auto device = decode<openvr_device_t>(hex("96 " + std::string(flag) + " C3 97 " + D1 +
                                                        D0 + D0 + D1 + D0 + D0 + D0 + "96 " + D0 +
                                                        D0 + D0 + D0 + D0 + D2 + "05 06"));
        EXPECT_EQ(device.b1, expected) << flag;
        EXPECT_TRUE(device.b2);
        EXPECT_EQ(device.pose.x, 1.0f);
        EXPECT_EQ(device.values.d5, 2.0);
        EXPECT_EQ(device.i2, 6);
    }
}

TEST(RecordAccepts, ReadingOverwritesTheTarget) {
    // A frame read into a used target keeps nothing of the old content, and vectors take the
    // received length in both directions.
    kinect_frame_t frame;
    frame.i1 = 5;
    frame.bodies.resize(8);
    frame.bodies[0].joints.resize(4);
    const auto bytes =
        hex("92 01 91 92 02 91 94 01 02 97 " + D1 + D1 + D1 + D1 + D1 + D1 + D1 + "03");
    ASSERT_EQ(read_error(bytes, frame), "");
    EXPECT_TRUE(same(frame, decode<kinect_frame_t>(bytes))) << "differs from a fresh read";

    xsens_frame_t xsens;
    xsens.segments.resize(2);
    std::string segments = "91 95 ";
    for (int i = 0; i < 5; ++i)
        segments += "95 0" + std::to_string(i) + " 00 94 " + D0 + D0 + D0 + D0 + "93 " + D0 + D0 +
                    D0 + "93 " + D0 + D0 + D0;
    const auto five = hex(segments);
    mp::ReadBuffer c2(five.data(), five.size());
    read(c2, xsens);
    EXPECT_TRUE(same(xsens, decode<xsens_frame_t>(five))) << "differs from a fresh read";
    EXPECT_EQ(c2.position, five.size());
}

TEST(RecordDefaults, PosesNotReachedByAFailedListReadAreTheIdentity) {
    // A pose list whose second element fails: the vector has already taken the received length,
    // and the element never reached was default-constructed, so it is the identity, not zeros.
    std::vector<pose7_t> poses;
    const auto bytes = hex("93 97 " + D1 + D1 + D1 + D1 + D1 + D1 + D1 + "97 01 " + D0 + D0 + D0 +
                           D0 + D0 + D0 + "97 " + D0 + D0 + D0 + D0 + D0 + D0 + D0);
    EXPECT_EQ(read_error(bytes, poses), "expected float value");
    ASSERT_EQ(poses.size(), 3u);
    EXPECT_EQ(poses[0].x, 1.0f);
    EXPECT_EQ(poses[2].q0, 1.0f);
    EXPECT_EQ(poses[2].x, 0.0f);
}

}  // namespace
