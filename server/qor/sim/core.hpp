#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace spdlog {
class logger;
}

namespace qor::sim {

/// Settings of a `SimulationCore`.
struct CoreOptions {
    std::string data_dir = "qor-sim-data";   ///< saved scenes and settings live here
    std::string secret;                      ///< AUTHENTICATE's secret; empty accepts anyone
    double server_period_ms = 1000.0 / 60;   ///< simulated time per step while running
    double publish_period_ms = 1000.0 / 30;  ///< interval between published states
    std::shared_ptr<spdlog::logger> logger;  ///< may be null: nothing is logged
};

/// The answer to one operation: one encoded value, or a WAMP error URI with a text.
struct CallResult {
    bool ok = false;
    std::vector<uint8_t> value;  ///< exactly one MessagePack value when `ok`
    std::string error;           ///< error URI when not `ok`
    std::string message;         ///< what went wrong, for people
};

/// The simulation server without its network: the scene, the Bullet world, the meshes, the
/// data folder, the server clock and the operations "qor.server.operation.NAME".
///
/// Threading: `call` may be called from any thread; calls are serialised with the clock
/// thread the core runs while the simulation is started. The publisher is called on the
/// clock thread, without the core's lock held, and must not call back into the core.
class SimulationCore {
  public:
    /// Receives every state update: the topic and the one encoded argument of the event.
    using Publisher =
        std::function<void(const std::string& topic, const std::vector<uint8_t>& value)>;

    /// Opens the data folder (throws std::runtime_error when it cannot) and starts the clock
    /// thread.
    explicit SimulationCore(CoreOptions options);
    /// Stops the clock thread.
    ~SimulationCore();
    SimulationCore(const SimulationCore&) = delete;
    SimulationCore& operator=(const SimulationCore&) = delete;

    /// Sets where state updates go; null drops them. Returns once no call of the previous
    /// publisher is running.
    void set_publisher(Publisher publisher);

    /// Runs `procedure` with `count` positional arguments encoded back to back in
    /// [args, args + size), after any state already on its way to the publisher has been
    /// handed over. Never throws: every failure is a `CallResult` error.
    CallResult call(const std::string& procedure, const uint8_t* args, uint64_t size,
                    uint64_t count);
    /// Runs `procedure` like `call` only when that is quick: an operation that touches no file
    /// and builds no world, while no other call, step or publication holds the core. Returns
    /// false, having run nothing, otherwise (or when it fails: the failure is reported by
    /// `call`). For a network thread that must never wait.
    bool try_call(const std::string& procedure, const uint8_t* args, uint64_t size,
                  uint64_t count, CallResult& result);
    /// Same with no arguments.
    CallResult call(const std::string& procedure) { return call(procedure, nullptr, 0, 0); }

    /// True once QUIT succeeded.
    bool quit_requested() const;
    /// Blocks until QUIT succeeded or `request_quit` was called.
    void wait_for_quit();
    /// Saves what the persistence mode asks for and wakes `wait_for_quit` (signals, shutdown).
    void request_quit();

    /// The full procedure URIs of every operation, sorted.
    static std::vector<std::string> procedures();
    /// The topic of state updates.
    static constexpr const char* kUpdateTopic = "qor.server.update";

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qor::sim
