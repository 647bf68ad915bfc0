#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qor::viewer {

/// The topic on which the server republishes device frames as points for the viewer.
inline constexpr const char* kMarkersTopic = "qor.viewer.markers";

/// The points of one device frame published on `topic`, in plain map form:
/// {"device": topic, "kind": "skeleton" | "markers", "points": [x, y, z, ...]}.
/// Skeletons come from Kinect joints and Xsens segments, markers from OptiTrack and ART
/// bodies. Empty for other topics and for a frame that does not decode (clients may relay
/// frames of their own, and a bad one must not reach the page).
std::optional<std::vector<uint8_t>> markers_of(const std::string& topic,
                                               const std::vector<uint8_t>& frame);

}  // namespace qor::viewer
