// Device frames: the server relays motion-capture and tracking frames on topics; the client
// keeps the latest frame of each stream, and the application polls for it between pumps.
//
//   qor-sim-server --devices 30 &       # publishes synthetic frames 30 times a second
//   example-device-frames rs://127.0.0.1:8081

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s URL\n", argv[0]);
        return 2;
    }
    spdlog::stdout_color_mt("logger")->set_level(spdlog::level::warn);
    qor::QorClient peer;
    // A device stream is bound only once some endpoint declares that it serves the topic;
    // here the server endpoint relays every device stream.
    qor::transport::ConnectOptions options;
    options.served_topics = dax::types::device_topics();
    qor::transport::connect(peer, argv[1], options);
    dax::client::DaxClient client(&peer);

    // Pump until both streams have delivered a frame, or give up after 5 s.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!(client.is_art_available() && client.is_kinect_available(0)) &&
           std::chrono::steady_clock::now() < deadline) {
        if (!client.full_update()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // The getters copy the latest frame and return false while none has arrived.
    dax::types::art_frame_t art;
    dax::types::kinect_frame_t kinect;
    const bool have_art = client.get_art_frame(art);
    const bool have_kinect = client.get_kinect_frame(kinect, 0);
    if (have_art)
        std::printf("ART frame %d: %zu targets\n", art.i1, art.list_a.size());
    if (have_kinect)
        std::printf("Kinect frame %d: %zu bodies\n", kinect.i1, kinect.bodies.size());
    if (!have_art || !have_kinect) std::printf("no frames within 5 s: is --devices set?\n");
    return have_art && have_kinect ? 0 : 1;
}
