#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qor::launch {

/// How to start `qor-sim-server`.
struct LaunchOptions {
    std::string executable;         ///< path of qor-sim-server
    std::vector<std::string> args;  ///< extra options (ports default to 0: free ones)
    std::string log_path;           ///< the server's log (stderr) goes here; empty: inherited
    std::chrono::milliseconds start_timeout{10000};  ///< wait for the "listening" line
};

/// A qor-sim-server child process: started by the constructor, which returns once the server
/// listens, and stopped by the destructor (SIGTERM, then SIGKILL after 5 s).
class ServerProcess {
  public:
    /// Starts the server; throws std::runtime_error when it does not come up in time.
    explicit ServerProcess(const LaunchOptions& options);
    /// Stops the server if it still runs.
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    /// "rs://127.0.0.1:PORT".
    std::string rawsocket_url() const;
    /// "ws://127.0.0.1:PORT".
    std::string websocket_url() const;
    uint16_t rawsocket_port() const { return rawsocket_port_; }
    uint16_t websocket_port() const { return websocket_port_; }
    pid_t pid() const { return pid_; }

    /// Waits up to `limit` for the server to exit; its exit code, or -1 if it still runs
    /// (or died from a signal).
    int wait(std::chrono::milliseconds limit);
    /// SIGTERM, then SIGKILL if it has not exited within `grace`. Idempotent.
    void stop(std::chrono::milliseconds grace = std::chrono::milliseconds(5000));
    /// Kills it at once (SIGKILL), like a crash.
    void kill_now();

  private:
    pid_t pid_ = -1;
    bool exited_ = false;
    int exit_code_ = -1;
    uint16_t rawsocket_port_ = 0;
    uint16_t websocket_port_ = 0;
};

/// The folder of the running executable (where qor-sim-server is built beside the demo).
std::string executable_folder();

}  // namespace qor::launch
