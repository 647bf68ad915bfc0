// Builds a DaxClient around an unconnected peer from wherever this program was copied, prints
// what the client ended up with, and destroys it. Arguments:
//   --stderr-logger   register "logger" on standard error with a bare pattern first
//   --create TYPE     also try to create one component of TYPE through the plug-ins

#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>

int main(int argc, char** argv) {
    std::string create_type;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--stderr-logger") == 0) {
            auto logger = spdlog::stderr_color_mt("logger");
            // Lines end in "\n" on every platform (spdlog ends them in "\r\n" on Windows).
            logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
                "%v", spdlog::pattern_time_type::local, std::string("\n")));
        } else if (std::strcmp(argv[i], "--create") == 0 && i + 1 < argc) {
            create_type = argv[++i];
        }
    }

    qor::QorClient peer;
    try {
        dax::client::DaxClient client(&peer);
        std::cout << "probe: factories=" << client.factories.size()
                  << " bindings=" << peer.next_binding_id - 1 << " timeout=" << client.getTimeout()
                  << " version=" << client.getSceneStateVersion() << std::endl;
        if (!create_type.empty()) {
            try {
                auto* component = client.Create(create_type);
                std::cout << "probe: created " << component->getType()
                          << " id=" << component->getId() << std::endl;
            } catch (const std::exception& e) {
                std::cout << "probe: " << e.what() << std::endl;
            }
        }
    } catch (const std::exception& e) {
        std::cout << "probe: construction failed: " << e.what() << std::endl;
    }
    // The peer belongs to us and is still usable once the client is gone.
    std::cout << "probe: peer bindings=" << peer.device_bindings.size()
              << " pending=" << peer.pending_device_bindings.size() << std::endl;
    return 0;
}
