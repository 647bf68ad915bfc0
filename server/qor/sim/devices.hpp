#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qor::sim {

/// One frame ready to publish: its topic and the encoded frame record (the event's argument).
struct DeviceFrame {
    std::string topic;
    std::vector<uint8_t> value;
};

/// One frame of each simulated device family at time `t` seconds: a person walking in a
/// circle seen by ART, Kinect, OptiTrack and Xsens, two moving hands (Leap), insole pressure
/// following the gait (Moticon) and a headset with two controllers (OpenVR), each on the
/// family's single topic or its stream 0 (see <dax/types/device_topics.hpp>).
std::vector<DeviceFrame> make_device_frames(double t, int frame_number);

/// Publishes `make_device_frames` at a fixed rate on its own thread until stopped.
class DeviceFeed {
  public:
    using Publisher =
        std::function<void(const std::string& topic, const std::vector<uint8_t>& value)>;

    /// Starts publishing `rate_hz` frames per second per family (rate 0 does nothing).
    DeviceFeed(double rate_hz, Publisher publisher);
    /// Stops and joins the thread.
    ~DeviceFeed();
    DeviceFeed(const DeviceFeed&) = delete;
    DeviceFeed& operator=(const DeviceFeed&) = delete;

  private:
    void run(double rate_hz);
    Publisher publisher_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace qor::sim
