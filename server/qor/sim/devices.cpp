#include <qor/sim/devices.hpp>

#include <array>
#include <chrono>
#include <cmath>

#include <dax/types/device_topics.hpp>
#include <dax/types/devices.hpp>

namespace qor::sim {

namespace dt = dax::types;

namespace {

constexpr double kPi = 3.14159265358979323846;

// A pose at (x, y, z) turned by `yaw` about the vertical axis (scalar part first).
dt::pose7_t pose(double x, double y, double z, double yaw = 0) {
    dt::pose7_t p;
    p.x = float(x);
    p.y = float(y);
    p.z = float(z);
    p.q0 = float(std::cos(yaw / 2));
    p.q3 = float(std::sin(yaw / 2));
    return p;
}

// The walker: a person going round a circle of 2 m radius at 1.2 m/s with a 1.1 s stride.
struct Walker {
    double heading, cx, cy, swing;
    explicit Walker(double t) {
        const double angle = t * 1.2 / 2.0;
        cx = 2.0 * std::cos(angle);
        cy = 2.0 * std::sin(angle);
        heading = angle + kPi / 2;
        swing = std::sin(2 * kPi * t / 1.1);
    }
    // A point of the body in its own frame (forward, left, up) placed in the room.
    dt::pose7_t at(double forward, double left, double up) const {
        const double c = std::cos(heading), s = std::sin(heading);
        return pose(cx + c * forward - s * left, cy + s * forward + c * left, up, heading);
    }
};

// Segment positions (forward, left, up) of a 23-segment skeleton; legs and arms swing.
std::vector<std::array<double, 3>> skeleton(const Walker& w) {
    const double leg = 0.25 * w.swing, arm = -0.2 * w.swing;
    return {{0, 0, 1.0},
            {0, 0, 1.1},
            {0, 0, 1.2},
            {0, 0, 1.3},
            {0, 0, 1.4},
            {0, 0, 1.55},
            {0, 0, 1.7},
            {0, 0.1, 1.5},
            {0, 0.2, 1.45},
            {arm, 0.25, 1.2},
            {arm, 0.28, 0.95},
            {0, -0.1, 1.5},
            {0, -0.2, 1.45},
            {-arm, -0.25, 1.2},
            {-arm, -0.28, 0.95},
            {0, 0.1, 0.95},
            {leg, 0.1, 0.5},
            {leg, 0.1, 0.08},
            {leg + 0.12, 0.1, 0.02},
            {0, -0.1, 0.95},
            {-leg, -0.1, 0.5},
            {-leg, -0.1, 0.08},
            {-leg + 0.12, -0.1, 0.02}};
}

template <class T>
DeviceFrame encoded(std::string topic, const T& frame) {
    DeviceFrame out{std::move(topic), {}};
    dt::pack(out.value, frame);
    return out;
}

dt::leap_hand_t hand(double t, int id, bool left) {
    dt::leap_hand_t h;
    const double side = left ? -0.12 : 0.12;
    const double wave = std::sin(2 * kPi * 0.5 * t + (left ? 0 : kPi));
    h.i1 = id;
    h.b1 = left;
    h.f1 = 0.95f;                                    // confidence
    h.pose_a = pose(side, 0.25 + 0.05 * wave, 0.2);  // palm
    h.pose_b = pose(side, 0.22 + 0.05 * wave, 0.2);  // wrist
    h.pose_c = pose(side, 0.15, 0.15);               // elbow
    h.f2 = float(0.5 + 0.5 * wave);                  // grab strength
    h.f3 = float(0.08);                              // palm width
    for (int f = 0; f < 5; ++f) {
        dt::leap_finger_t finger;
        finger.i1 = id * 10 + f;
        finger.i2 = f;
        for (int b = 0; b < 4; ++b) {
            const double bend = 0.3 * (1 + wave) * b;
            finger.bones.push_back({b, f, id,
                                    pose(side + (f - 2) * 0.02, 0.3 + 0.025 * b, 0.2 - 0.01 * bend),
                                    0.025f, 0.015f});
        }
        h.fingers.push_back(std::move(finger));
    }
    return h;
}

}  // namespace

std::vector<DeviceFrame> make_device_frames(double t, int frame_number) {
    const Walker walker(t);
    const auto segments = skeleton(walker);
    std::vector<DeviceFrame> out;

    dt::art_frame_t art;
    art.i1 = frame_number;
    art.list_a.push_back({1, {walker.at(0, 0, 1.7), 0.9f, 0.0f}});  // head target
    art.list_a.push_back({2, {walker.at(0.1, 0.28, 0.95), 0.9f, 0.0f}});
    art.list_b.push_back({3, 0, {walker.at(0.2, -0.28, 1.0), 0.8f, 0.0f}});
    art.list_c.push_back({4, walker.at(0.2, -0.28, 1.0), 0.9f, 6, {{0, 1, 0, 0}}, {{0.0, 0.5}}});
    dt::art_d_t glove;
    glove.i1 = 5;
    glove.pose = walker.at(0.1, 0.28, 0.95);
    glove.f1 = 0.9f;
    glove.b1 = true;
    glove.i2 = 5;
    for (int f = 0; f < 5; ++f)
        glove.items.push_back({walker.at(0.15, 0.24 + 0.02 * f, 0.93),
                               0.02f,
                               {{0.03f, 0.02f}},
                               {{float(0.3 * (1 + walker.swing))}}});
    art.list_d.push_back(std::move(glove));
    out.push_back(encoded(dt::kArtTopics.topic(), art));

    dt::kinect_frame_t kinect;
    kinect.i1 = frame_number;
    dt::kinect_body_t person;
    person.i1 = 1;
    for (size_t j = 0; j < segments.size(); ++j)
        person.joints.push_back(
            {int(j), 2, walker.at(segments[j][0], segments[j][1], segments[j][2]), 2});
    kinect.bodies.push_back(std::move(person));
    out.push_back(encoded(dt::kKinectTopics.topic(0), kinect));

    dt::leap_frame_t leap;
    leap.i1 = frame_number;
    leap.hands.push_back(hand(t, 1, true));
    leap.hands.push_back(hand(t, 2, false));
    out.push_back(encoded(dt::kLeapTopics.topic(0), leap));

    // Pressure moves from heel to toe while a foot is down and drops while it swings.
    dt::moticon_frame_t moticon;
    const double phase = std::fmod(t / 1.1, 1.0);
    const auto side = [](double p) {
        dt::moticon_side_t s;
        const bool down = p < 0.6;
        s.point = {0.0f, float(down ? -0.1 + 0.2 * p / 0.6 : 0.0)};
        s.value = float(down ? 35.0 * std::sin(kPi * p / 0.6) : 0.0);
        return s;
    };
    moticon.left = side(phase);
    moticon.right = side(std::fmod(phase + 0.5, 1.0));
    out.push_back(encoded(dt::kMoticonTopics.topic(), moticon));

    dt::openvr_frame_t vr;
    const double c = std::cos(t), s = std::sin(t);
    vr.device_a = {true, true, pose(0, 0, 1.65, 0.3 * std::sin(t)), {0, 0, 0, 0, 0.3 * c, 0}, 0, 1};
    vr.device_b = {true, true, pose(0.2, 0.3 + 0.1 * s, 1.1), {0, 0.1 * c, 0, 0, 0, 0}, 1, 2};
    vr.device_c = {true, true, pose(-0.2, 0.3 - 0.1 * s, 1.1), {0, -0.1 * c, 0, 0, 0, 0}, 2, 2};
    vr.ints_a = {{0, 1, 2}};
    vr.ints_b = {{1, 2, 2}};
    vr.devices = {vr.device_a, vr.device_b, vr.device_c};
    out.push_back(encoded(dt::kOpenvrTopics.topic(0), vr));

    dt::optitrack_frame_t opti;
    opti.i1 = frame_number;
    opti.f1 = float(t);
    opti.bodies.push_back({1, 0.001f, walker.at(0, 0, 1.7)});
    opti.bodies.push_back({2, 0.001f, walker.at(0, 0, 1.0)});
    opti.bodies.push_back({3, 0.001f, pose(0, 0, 0.75)});  // a table that stays put
    out.push_back(encoded(dt::kOptitrackTopics.topic(), opti));

    dt::xsens_frame_t xsens;
    for (size_t i = 0; i < segments.size(); ++i) {
        const dt::pose7_t p = walker.at(segments[i][0], segments[i][1], segments[i][2]);
        xsens.segments.push_back({int(i),
                                  frame_number,
                                  {p.q0, p.q1, p.q2, p.q3},
                                  {p.x, p.y, p.z},
                                  {float(-1.2 * std::sin(walker.heading)),
                                   float(1.2 * std::cos(walker.heading)), 0.0f}});
    }
    out.push_back(encoded(dt::kXsensTopics.topic(), xsens));
    return out;
}

DeviceFeed::DeviceFeed(double rate_hz, Publisher publisher) : publisher_(std::move(publisher)) {
    if (rate_hz > 0 && publisher_) thread_ = std::thread([this, rate_hz] { run(rate_hz); });
}

DeviceFeed::~DeviceFeed() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void DeviceFeed::run(double rate_hz) {
    using Clock = std::chrono::steady_clock;
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate_hz));
    const auto start = Clock::now();
    auto next = start;
    int frame = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_until(lock, next, [this] { return stopping_; })) {
        const double t = std::chrono::duration<double>(Clock::now() - start).count();
        lock.unlock();
        for (const DeviceFrame& f : make_device_frames(t, frame)) publisher_(f.topic, f.value);
        lock.lock();
        ++frame;
        next += period;
        if (Clock::now() - next > 5 * period) next = Clock::now() + period;
    }
}

}  // namespace qor::sim
