#include <dax/plugins/plugin_handler.hpp>

#include <spdlog/sinks/stdout_color_sinks.h>

namespace dax::plugins {

std::shared_ptr<spdlog::logger> plugin_logger() {
    if (auto existing = spdlog::get("logger")) return existing;
    try {
        return spdlog::stdout_color_mt("logger");
    } catch (const spdlog::spdlog_ex&) {
        return spdlog::get("logger");  // registered by someone else in the meantime
    }
}

}  // namespace dax::plugins
