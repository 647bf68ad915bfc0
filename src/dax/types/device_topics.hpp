#pragma once

#include <string>
#include <vector>

namespace dax::types {

/// Where the frames of one device family arrive: one topic, or `count` numbered topics
/// `prefix` + "0" … `prefix` + (count - 1).
struct DeviceTopics {
    const char* prefix;  ///< the topic itself when `count` is 0
    int count;           ///< 0 for a family with a single stream
    /// The topic of stream `id`; `id` is ignored for a family with a single stream.
    std::string topic(int id = 0) const {
        return count == 0 ? std::string(prefix) : prefix + std::to_string(id);
    }
};

inline constexpr DeviceTopics kArtTopics{"art_frame", 0};              ///< art_frame_t
inline constexpr DeviceTopics kLeapTopics{"leap_frame_", 10};          ///< leap_frame_t
inline constexpr DeviceTopics kOptitrackTopics{"optitrack_frame", 0};  ///< optitrack_frame_t
inline constexpr DeviceTopics kXsensTopics{"xsens_frame", 0};          ///< xsens_frame_t
inline constexpr DeviceTopics kKinectTopics{"kinect_frame_", 5};       ///< kinect_frame_t
inline constexpr DeviceTopics kOpenvrTopics{"openvr_frame_", 10};      ///< openvr_frame_t
inline constexpr DeviceTopics kMoticonTopics{"moticon_frame", 0};      ///< moticon_frame_t

/// Every device topic a DaxClient subscribes, in the order it subscribes them (29 names).
/// A server endpoint that relays the device streams lists them in
/// `qor::transport::ConnectOptions::served_topics`.
std::vector<std::string> device_topics();

}  // namespace dax::types
