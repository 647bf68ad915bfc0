// Device streams: one subscription per device topic, made at construction; the last frame of
// each stream is kept for the getters.
#include <dax/client/dax_client.hpp>

#include <cstddef>
#include <string>
#include <vector>

#include <dax/types/device_topics.hpp>
#include <qor/qor_client.hpp>

namespace dax::client {


template <class Frame>
void DaxClient::bind_stream(DeviceStore<Frame>& store, const std::string& topic) {
    store.device_available = false;
    std::function<void(const Frame&)> handler = [&store](const Frame& frame) {
        store.device_frame = frame;
        store.device_available = true;
    };
    peer->bind_device<Frame>(topic, handler);
}

template <class Frame>
void DaxClient::bind_streams(DeviceStores<Frame>& stores, const dax::types::DeviceTopics& topics,
                             int count) {
    for (int id = 0; id < count; ++id) {
        stores.device_available.push_back(false);
        stores.device_frames.emplace_back();
        std::function<void(const Frame&)> handler = [&stores, id](const Frame& frame) {
            stores.device_frames[id] = frame;
            stores.device_available[id] = true;
        };
        peer->bind_device<Frame>(topics.topic(id), handler);
    }
}

void DaxClient::init_art() {
    bind_stream(art, dax::types::kArtTopics.topic());
}
void DaxClient::init_leap(int count) {
    bind_streams(leap, dax::types::kLeapTopics, count);
}
void DaxClient::init_optitrack() {
    bind_stream(optitrack, dax::types::kOptitrackTopics.topic());
}
void DaxClient::init_xsens() {
    bind_stream(xsens, dax::types::kXsensTopics.topic());
}
void DaxClient::init_kinect(int count) {
    bind_streams(kinect, dax::types::kKinectTopics, count);
}
void DaxClient::init_openvr(int count) {
    bind_streams(openvr, dax::types::kOpenvrTopics, count);
}
void DaxClient::init_moticon() {
    bind_stream(moticon, dax::types::kMoticonTopics.topic());
}

namespace {

template <class Frame>
bool copy_frame(const DeviceStore<Frame>& store, Frame& out) {
    if (!store.device_available) return false;
    out = store.device_frame;
    return true;
}

// Stream ids are not trusted: an id outside the subscribed range reads as "no frame".
template <class Frame>
bool has_stream(const DeviceStores<Frame>& stores, int id) {
    return id >= 0 && static_cast<std::size_t>(id) < stores.device_available.size() &&
           stores.device_available[id];
}

template <class Frame>
bool copy_frame(const DeviceStores<Frame>& stores, Frame& out, int id) {
    if (!has_stream(stores, id)) return false;
    out = stores.device_frames[id];
    return true;
}

template <class Frame>
std::vector<int> stream_ids(const DeviceStores<Frame>& stores) {
    std::vector<int> ids;
    for (std::size_t id = 0; id < stores.device_available.size(); ++id) {
        if (stores.device_available[id]) ids.push_back(static_cast<int>(id));
    }
    return ids;
}

}  // namespace

bool DaxClient::get_art_frame(dax::types::art_frame_t& out) {
    return copy_frame(art, out);
}
bool DaxClient::get_moticon_frame(dax::types::moticon_frame_t& out) {
    return copy_frame(moticon, out);
}
bool DaxClient::get_optitrack_frame(dax::types::optitrack_frame_t& out) {
    return copy_frame(optitrack, out);
}
bool DaxClient::get_xsens_frame(dax::types::xsens_frame_t& out) {
    return copy_frame(xsens, out);
}
bool DaxClient::is_art_available() {
    return art.device_available;
}
bool DaxClient::is_moticon_available() {
    return moticon.device_available;
}
bool DaxClient::is_optitrack_available() {
    return optitrack.device_available;
}
bool DaxClient::is_xsens_available() {
    return xsens.device_available;
}
bool DaxClient::get_kinect_frame(dax::types::kinect_frame_t& out, int id) {
    return copy_frame(kinect, out, id);
}
bool DaxClient::get_leap_frame(dax::types::leap_frame_t& out, int id) {
    return copy_frame(leap, out, id);
}
bool DaxClient::get_openvr_frame(dax::types::openvr_frame_t& out, int id) {
    return copy_frame(openvr, out, id);
}
std::vector<int> DaxClient::get_kinect_ids() {
    return stream_ids(kinect);
}
std::vector<int> DaxClient::get_leap_ids() {
    return stream_ids(leap);
}
std::vector<int> DaxClient::get_openvr_ids() {
    return stream_ids(openvr);
}
bool DaxClient::is_kinect_available(int id) {
    return has_stream(kinect, id);
}
bool DaxClient::is_leap_available(int id) {
    return has_stream(leap, id);
}
bool DaxClient::is_openvr_available(int id) {
    return has_stream(openvr, id);
}

}  // namespace dax::client
