#include "demo_platform.hpp"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include <qor/launch/server_process.hpp>

namespace {

class LaunchedServer final : public LocalServer {
  public:
    LaunchedServer() {
        data_dir_ = std::filesystem::temp_directory_path() /
                    ("qor-demo-" + std::to_string(::getpid()));
        std::filesystem::create_directories(data_dir_);
        qor::launch::LaunchOptions launch;
        launch.executable = qor::launch::executable_folder() + "/qor-sim-server";
        launch.args = {"--data-dir", data_dir_.string(), "--devices", "30"};
        launch.log_path = (data_dir_ / "server.log").string();
        std::printf("Starting %s\n", launch.executable.c_str());
        process_ = std::make_unique<qor::launch::ServerProcess>(launch);
        std::printf("  listening on %s and %s (log: %s)\n", url().c_str(),
                    process_->websocket_url().c_str(), launch.log_path.c_str());
    }

    std::string url() const override { return process_->rawsocket_url(); }
    std::string websocket_url() const override { return process_->websocket_url(); }

    int finish() override {
        const int code = process_->wait(std::chrono::milliseconds(5000));
        std::printf("  qor-sim-server exited with code %d\n", code);
        process_.reset();
        std::error_code ec;
        std::filesystem::remove_all(data_dir_, ec);
        return code;
    }

  private:
    std::filesystem::path data_dir_;
    std::unique_ptr<qor::launch::ServerProcess> process_;
};

}  // namespace

bool stdout_is_terminal() {
    return ::isatty(STDOUT_FILENO) != 0;
}

std::unique_ptr<LocalServer> start_local_server() {
    return std::make_unique<LaunchedServer>();
}
