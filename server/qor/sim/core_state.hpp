#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/meshes.hpp>
#include <qor/sim/scene.hpp>
#include <qor/sim/store.hpp>
#include <qor/sim/world.hpp>

namespace qor::sim {

/// States of the server's clock, as the operations report them.
enum SimState { kStopped = 0, kRunning = 1, kPaused = 2 };

/// What a SimulationCore holds, and the members that read or change it. Every member below
/// `mutex` is guarded by it; the handlers (op_NAME) run with it held.
struct SimulationCore::Impl {
    /// Decodes the arguments, takes the lock (waits for it, or only takes it when it is free
    /// if `wait` is false), runs the operation and writes its value to `out`. Returns false,
    /// having run nothing, when it did not get the lock.
    using Handler = std::function<bool(serialization::msgpack::ReadBuffer&, uint64_t, bool wait,
                                       std::vector<uint8_t>& out)>;
    struct Operation {
        Handler run;
        bool quick = false;  // no file, no world to build, bounded work: fine on any thread
    };
    using Clock = std::chrono::steady_clock;

    CoreOptions options;
    std::shared_ptr<spdlog::logger> log;
    Store store;
    std::map<std::string, Operation> table;  // by full procedure URI, filled once at start

    mutable std::mutex mutex;  // guards everything below
    std::condition_variable wake;
    std::vector<Component> scene;  // as last sent or loaded, by ascending id
    std::unique_ptr<PhysicsWorld> world = std::make_unique<PhysicsWorld>();
    MeshStore meshes;
    Settings settings;
    std::deque<std::string> errors;
    int state = kStopped;
    bool scheduling = true;
    int locks = 0;
    bool verbose = false;
    int compression = 0;
    double server_period_ms;
    double publish_period_ms;
    int64_t steps = 0;
    double sim_time = 0;
    double last_step_ms = 0;
    // What each body's state was when last published, kept while the compression level is
    // above 0 (it leaves out the unchanged ones).
    std::map<int64_t, std::vector<uint8_t>> last_published;
    // Scratch of `write_result` and the clock, reused from step to step.
    std::vector<uint8_t> publish_value;
    std::vector<std::pair<int64_t, BodyState>> body_states;
    std::vector<std::pair<int64_t, const BodyState*>> changed_states;
    WorldStats stats;
    Publisher publisher;
    bool publishing = false;  // the clock thread is inside the publisher, lock released
    std::condition_variable published;
    bool quit = false;
    bool stopping = false;
    std::condition_variable quit_cv;
    std::thread clock;

    explicit Impl(CoreOptions opts);
    ~Impl();

    // ---- the operation table (core.cpp) ---------------------------------------------------

    void register_operations();
    // The handler of operation `name` taking arguments A...: `produce(out, args...)` writes
    // its one encoded value.
    template <class... A, class Produce>
    Handler handler(const char* name, Produce produce);
    template <class R, class... A>
    void add(const char* name, R (Impl::*fn)(const A&...));
    // With `wait` false, runs only a quick operation and only if the lock is free; returns
    // false, having run nothing, otherwise.
    bool call(const std::string& procedure, const uint8_t* args, uint64_t size, uint64_t count,
              bool wait, CallResult& r);
    // Logs a failure and keeps it for GET_LAST_ERRORS.
    void remember(const std::string& text);

    // ---- the scene and the world (core.cpp) -----------------------------------------------

    struct Part;
    static std::vector<Part> plan_world(const std::vector<Component>& components,
                                        const MeshStore& mesh_store);
    void build_world(const std::vector<Part>& parts);
    void install(std::vector<Component> components);
    void install_saved(SavedScene saved);
    void write_current(std::vector<uint8_t>& out, const Component& c) const;
    std::vector<Component> current_scene() const;
    std::vector<uint8_t> encode_current_scene() const;
    // GET_SERVER_SCENE's value, the current scene record as one binary value, appended to `out`.
    void write_current_scene(std::vector<uint8_t>& out) const;
    // SEND_SCENE of the record at [data, data + size).
    int send_scene(const uint8_t* data, uint64_t size);
    std::vector<Component> current_scene_without(const std::vector<int64_t>& ids) const;
    std::map<int64_t, Mesh> meshes_used_by(const std::vector<Component>& components) const;
    void apply_gravity_property();
    void autosave();
    void step_world();

    // ---- a step's answer (step_result.cpp) -------------------------------------------------

    // Appends the state map of the bodies as one bin value and leaves their figures in
    // `stats`: every body, or with `every` false and a compression level above 0, those that
    // changed since the last publication.
    void write_states(std::vector<uint8_t>& out, bool every);
    // A step's answer without its state map: the figures `write_states` left in `stats`.
    dax::types::integration_result_t result_figures() const;
    // Appends a step's answer (integration_result_t) for the world as it stands; `every` asks
    // for all bodies whatever the compression level (the step call's answer always has them).
    void write_result(std::vector<uint8_t>& out, bool every);

    // ---- the server clock (core.cpp) ------------------------------------------------------

    void run_clock();

    // ---- the operations (operations.cpp), one per line of the shared catalogue -----------

#define DAX_OPERATION_0(NAME, T) T op_##NAME();
#define DAX_OPERATION_1(NAME, T, A1) T op_##NAME(const A1&);
#define DAX_OPERATION_2(NAME, T, A1, A2) T op_##NAME(const A1&, const A2&);
#define DAX_OPERATION_3(NAME, T, A1, A2, A3) T op_##NAME(const A1&, const A2&, const A3&);
#define DAX_OPERATION_4(NAME, T, A1, A2, A3, A4) \
    T op_##NAME(const A1&, const A2&, const A3&, const A4&);
#include <dax/types/operations.def>
#undef DAX_OPERATION_0
#undef DAX_OPERATION_1
#undef DAX_OPERATION_2
#undef DAX_OPERATION_3
#undef DAX_OPERATION_4
};

}  // namespace qor::sim
