#include <qor/viewer/markers.hpp>

#include <exception>
#include <stdexcept>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>

namespace qor::viewer {

namespace {

namespace mp = serialization::msgpack;
namespace dt = dax::types;

struct Points {
    const char* kind = "markers";
    std::vector<double> xyz;
    template <class V>
    void add(const V& p) {
        xyz.insert(xyz.end(), {double(p.x), double(p.y), double(p.z)});
    }
};

template <class Frame>
Frame decode(const std::vector<uint8_t>& bytes) {
    mp::ReadBuffer in(bytes.data(), bytes.size());
    Frame frame;
    dt::read(in, frame);
    if (in.remaining() != 0) throw std::runtime_error("trailing bytes");
    return frame;
}

bool starts_with(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

std::optional<Points> points_of(const std::string& topic, const std::vector<uint8_t>& frame) {
    Points p;
    if (starts_with(topic, "kinect_frame_")) {
        p.kind = "skeleton";
        for (const auto& body : decode<dt::kinect_frame_t>(frame).bodies)
            for (const auto& joint : body.joints) p.add(joint.pose);
    } else if (topic == "xsens_frame") {
        p.kind = "skeleton";
        for (const auto& segment : decode<dt::xsens_frame_t>(frame).segments)
            p.add(segment.vector_a);
    } else if (topic == "optitrack_frame") {
        for (const auto& body : decode<dt::optitrack_frame_t>(frame).bodies) p.add(body.pose);
    } else if (topic == "art_frame") {
        for (const auto& target : decode<dt::art_frame_t>(frame).list_a) p.add(target.body.pose);
    } else {
        return std::nullopt;
    }
    return p;
}

}  // namespace

std::optional<std::vector<uint8_t>> markers_of(const std::string& topic,
                                               const std::vector<uint8_t>& frame) {
    std::optional<Points> points;
    try {
        points = points_of(topic, frame);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (!points) return std::nullopt;
    std::vector<uint8_t> out;
    mp::pack_map_header(out, 3);
    mp::pack(out, "device");
    mp::pack(out, topic);
    mp::pack(out, "kind");
    mp::pack(out, points->kind);
    mp::pack(out, "points");
    mp::pack(out, points->xyz);
    return out;
}

}  // namespace qor::viewer
