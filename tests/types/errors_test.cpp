// Decoding errors: the field-count test at every nesting level, forms refused, and what is
// consumed when a record is refused.

#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace {

using namespace dax::types;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

const std::string D0 = "CB 0000000000000000 ";
const std::string D1 = "CB 3FF0000000000000 ";
const std::string POSE = "97 " + D0 + D0 + D0 + D1 + D0 + D0 + D0;
const std::string VEC3 = "93 " + D0 + D0 + D0;
const std::string TRIANGLE = "93 CE 00000001 CE 00000002 CE 00000003 ";
const std::string CUT_TRIANGLES = "94 " + TRIANGLE + TRIANGLE + TRIANGLE + "93 CE 00000001 CE 0000";
const std::string DEVICE = "96 C2 C2 " + POSE + "96 " + D0 + D0 + D0 + D0 + D0 + D0 + "00 00 ";
const std::string DETAILS = "99 00 " + D0 + D0 + D0 + "00 " + D0 + D0 + "00 00";

std::string fields(int in_message, int in_struct) {
    return "reading struct : wrong number of fields. " + std::to_string(in_message) +
           " fields in message, " + std::to_string(in_struct) + " in struct";
}

using Reader = std::string (*)(const std::vector<uint8_t>&);
struct Case {
    const char* what;
    std::string bytes;
    Reader reader;
    std::string message;
};
// Readers of the records that several rows refuse.
const Reader of_mesh = read_error<mesh_batch_t>, of_result = read_error<integration_result_t>,
             of_pairs = read_error<vector_pair_string_double_t>,
             of_moticon = read_error<moticon_frame_t>, of_kinect = read_error<kinect_frame_t>,
             of_openvr = read_error<openvr_frame_t>, of_optitrack = read_error<optitrack_frame_t>,
             of_art = read_error<art_frame_t>, of_xsens = read_error<xsens_frame_t>,
             of_pose = read_error<pose7_t>, of_vec3 = read_error<vec3d_t>,
             of_info = read_error<mesh_info_t>;

// The field count at every level, forms refused, and the count compared before the bytes left.
TEST(RecordErrors, EachMalformedRecordGivesItsText) {
    const Case cases[] = {
        {"mesh batch", "92 90 90", of_mesh, fields(2, 3)},
        {"vertex with two coordinates", "93 91 92 " + D1 + D1 + "90 90", of_mesh, fields(2, 3)},
        {"vertex after good ones", "93 92 93 " + D1 + D1 + D1 + "94 " + D1 + D1 + D1 + D1 + "90 90",
         of_mesh, fields(4, 3)},
        {"pair with three indices", "93 90 91 93 CE 00000001 CE 00000002 CE 00000003 90", of_mesh,
         fields(3, 2)},
        {"triangle with two indices", "93 90 90 91 92 01 02", of_mesh, fields(2, 3)},
        {"mesh info", "95 01 02 03 A0 00", of_info, fields(5, 4)},
        {"integration result", "94 C4 00 00 " + VEC3 + VEC3, of_result, fields(4, 5)},
        {"step vector", "95 C4 00 00 " + VEC3 + "92 " + D0 + D0 + DETAILS, of_result, fields(2, 3)},
        {"step details", "95 C4 00 00 " + VEC3 + VEC3 + "98 00 00 00 00 00 00 00 00", of_result,
         fields(8, 9)},
        {"flag list", "92 90 90", read_error<vector_bool_t>, fields(2, 1)},
        {"string list", "90", read_error<vector_string_t>, fields(0, 1)},
        {"name and number", "91 91 91 A1 78", of_pairs, fields(1, 2)},
        {"kinect joint with five fields", "92 00 91 92 00 91 95 01 02 " + POSE + "03 04", of_kinect,
         fields(5, 4)},
        {"kinect pose with six fields",
         "92 00 91 92 00 91 94 01 02 96 " + D0 + D0 + D0 + D0 + D0 + D0 + "03", of_kinect,
         fields(6, 7)},
        {"moticon frame", "93 92 92 " + D0 + D0 + D0 + "92 92 " + D0 + D0 + D0 + "00", of_moticon,
         fields(3, 2)},
        {"moticon point", "92 92 93 " + D0 + D0 + D0 + D0, of_moticon, fields(3, 2)},
        {"xsens rotation", "91 91 95 00 00 93 " + D0 + D0 + D0, of_xsens, fields(3, 4)},
        {"openvr six values given five", "96 96 C2 C2 " + POSE + "95 " + D0 + D0 + D0 + D0 + D0,
         of_openvr, fields(5, 6)},
        {"openvr int list", "96 " + DEVICE + DEVICE + DEVICE + "92 90 90", of_openvr, fields(2, 1)},
        {"leap bone",
         "92 00 91 99 00 C2 " + D0 + POSE + POSE + POSE + D0 + D0 +
             "91 93 00 00 91 97 00 00 00 00 00 00 00",
         read_error<leap_frame_t>, fields(7, 6)},
        {"optitrack frame", "92 00 " + D0, of_optitrack, fields(2, 3)},
        {"optitrack body", "93 00 " + D0 + "91 92 00 " + D0, of_optitrack, fields(2, 3)},
        {"art float list inside an item",
         "95 00 90 90 90 91 96 00 " + POSE + D0 + "C2 00 91 94 " + POSE + D0 + "92 90 90", of_art,
         fields(2, 1)},
        {"art body", "95 00 91 92 00 92 " + POSE + D0, of_art, fields(2, 3)},
        {"states as str", "95 A2 0102 00 " + VEC3 + VEC3 + DETAILS, of_result,
         "inconsistent data while parsing binary data"},
        {"pose from integers", "97 01 02 03 01 00 00 00", of_pose, "expected float value"},
        {"pose with one integer", "97 " + D0 + D0 + D0 + "01 " + D0 + D0 + D0, of_pose,
         "expected float value"},
        {"vertex with an integer", "93 91 93 " + D0 + "01 " + D0 + "90 90", of_mesh,
         "expected double value"},
        {"index as float", "93 90 91 92 CE 00000001 " + D1 + "90", of_mesh,
         "expecting integer value"},
        {"index as nil", "93 90 90 91 93 C0 00 00", of_mesh, "expecting integer value"},
        {"record as map", "81 A1 78 00", of_vec3, "inconsistent data while parsing array"},
        {"vertex list as map", "93 80 90 90", of_mesh, "inconsistent data while parsing array"},
        {"text as bin", "94 00 00 00 C4 01 41", of_info, "inconsistent data while parsing string"},
        {"number as string", "91 91 92 A1 78 A1 79", of_pairs, "expected double value"},
        // A header announcing more fields than the bytes could hold is a wrong count first.
        {"vertex header alone", "94", of_vec3, fields(4, 3)},
        {"moticon frame header alone", "93", of_moticon, fields(3, 2)},
        {"name and number", "91 91 93 A1 78", of_pairs, fields(3, 2)},
        {"vertex of array 32", "93 91 DD FFFFFFFF", of_mesh,
         "reading struct : wrong number of fields. 4294967295 fields in message, 3 in struct"},
        {"frame of array 16", "DC 0100 00", of_xsens, fields(256, 1)},
        // The right count with the fields cut short is the truncation it is.
        {"vertex cut short", "93 CB 3FF0", of_vec3, "unexpected end of data"},
        // More fixed-size elements promised than the bytes hold: the shortcut that reads them
        // whole must not run past the end.
        {"triangles cut short", CUT_TRIANGLES, read_error<std::vector<index_triple_t>>,
         "unexpected end of data"},
        {"mesh triangles cut short", "93 90 90 " + CUT_TRIANGLES, of_mesh,
         "unexpected end of data"},
    };
    for (const Case& c : cases) EXPECT_EQ(c.reader(hex(c.bytes)), c.message) << c.what;
}

TEST(RecordErrors, RefusedCountConsumesOnlyTheHeader) {
    // Fixed-size and general records alike: the cursor stops right behind the header.
    for (const char* bytes : {"94 01 02 03 04", "92 CB 3FF0000000000000 CB 3FF0000000000000"}) {
        const auto data = hex(bytes);
        mp::ReadBuffer in(data.data(), data.size());
        vec3d_t v;
        EXPECT_THROW(read(in, v), std::runtime_error) << bytes;
        EXPECT_EQ(in.position, 1u) << bytes;
    }
    const auto data = hex("93 00 00 00");
    mp::ReadBuffer in(data.data(), data.size());
    vector_bool_t flags;
    EXPECT_EQ(error_of([&] { read(in, flags); }), fields(3, 1));
    EXPECT_EQ(in.position, 1u);
}

TEST(RecordErrors, ListLongerThanItsBytesGrowsOnlyWithWhatArrives) {
    // 1000 vertices claimed, two present, then 1000 bytes of junk: enough bytes for the header
    // to pass, far too few for 1000 vertices. The target grows with the elements read, not to
    // the claimed count, and the error is the one met at the third element.
    const std::string vertex = "93 CA 3F800000 CA 3F800000 CA 40000000 ";
    const std::string junk(2 * 1000, '0');
    mesh_batch_t mesh;
    EXPECT_EQ(read_error(hex("93 DC 03E8 " + vertex + vertex + junk), mesh),
              "inconsistent data while parsing array");
    EXPECT_EQ(mesh.vertices.size(), 3u);
    EXPECT_LT(mesh.vertices.capacity(), 100u);
    EXPECT_EQ(mesh.vertices[1].z, 2.0);

    leap_frame_t leap;
    EXPECT_EQ(read_error(hex("92 00 DC 03E8 92 00 00 " + junk), leap), fields(2, 9));
    EXPECT_LT(leap.hands.capacity(), 100u);

    // Exactly enough bytes for the shortest accepted form of each element reads normally.
    std::string vertices = "93 94 ";
    for (int i = 0; i < 4; ++i) vertices += vertex;
    mesh = decode<mesh_batch_t>(hex(vertices + "90 90"));
    ASSERT_EQ(mesh.vertices.size(), 4u);
    EXPECT_EQ(mesh.vertices[3].x, 1.0);
}

}  // namespace
