// Builds a DaxClient around an unconnected peer from wherever this program was copied, prints
// what the client ended up with, and destroys it. With --stderr-logger it first registers
// "logger" on standard error with a bare pattern.

#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--stderr-logger") == 0) {
        auto logger = spdlog::stderr_color_mt("logger");
        // Lines end in "\n" on every platform (spdlog ends them in "\r\n" on Windows).
        logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%v", spdlog::pattern_time_type::local, std::string("\n")));
    }

    qor::QorClient peer;
    try {
        dax::client::DaxClient client(&peer);
        std::cout << "probe: factories=" << client.factories.size()
                  << " bindings=" << peer.next_binding_id - 1 << " timeout=" << client.getTimeout()
                  << " version=" << client.getSceneStateVersion() << std::endl;
    } catch (const std::exception& e) {
        std::cout << "probe: construction failed: " << e.what() << std::endl;
    }
    // The peer belongs to us and is still usable once the client is gone.
    std::cout << "probe: peer bindings=" << peer.device_bindings.size()
              << " pending=" << peer.pending_device_bindings.size() << std::endl;
    return 0;
}
