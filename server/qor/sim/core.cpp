#include <qor/sim/core.hpp>

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

#include <fmt/format.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <qor/sim/arguments.hpp>
#include <qor/sim/core_state.hpp>

namespace qor::sim {

namespace mp = serialization::msgpack;
namespace dt = dax::types;

namespace {

constexpr const char* kAutosave = "autosave";
constexpr size_t kMaxErrors = 100;

template <class T>
void read_one(const char* name, size_t index, mp::ReadBuffer& in, T& value) {
    try {
        read_arg(in, value);
    } catch (const std::exception& e) {
        throw OperationError(kInvalidArgument,
                             fmt::format("argument {} of {} must be {}: {}", index + 1, name,
                                         type_name<T>(), e.what()));
    }
}

// Operations that touch no file, build no world and do bounded work on small values: they
// may run on the network thread when the core is free, sparing a call two thread hand-offs.
bool is_quick(const char* name) {
    static const std::set<std::string> quick = {
        "AUTHENTICATE",         "COMPONENTS_REGISTERED",
        "ENABLE_SCHEDULING",    "GET_LAST_ERRORS",
        "GET_LOGS_LABELS",      "GET_PERSISTENCE_MODE",
        "GET_PROPERTY",         "GET_SERVER_BUILD_NUMBER",
        "GET_TRIMESH_INFO",     "HAS_PROPERTY",
        "LOCK_PHYSIC",          "UNLOCK_PHYSIC",
        "PAUSE_SIMULATION",     "RESUME_SIMULATION",
        "START_SIMULATION",     "SET_PUBLISH_COMPRESSION_LEVEL",
        "SET_PUBLISH_PERIOD_MS", "SET_SERVER_PERIOD_MS",
        "SET_VERBOSE"};
    return quick.count(name) != 0;
}

template <class Tuple, size_t... I>
void read_all(const char* name, mp::ReadBuffer& in, Tuple& args, std::index_sequence<I...>) {
    (void)name;  // unused by operations without arguments
    (read_one(name, I, in, std::get<I>(args)), ...);
}

}  // namespace

SimulationCore::Impl::Impl(CoreOptions opts)
    : options(std::move(opts)),
      log(options.logger ? options.logger
                         : std::make_shared<spdlog::logger>(
                               "qor-sim", std::make_shared<spdlog::sinks::null_sink_mt>())),
      store(options.data_dir),
      server_period_ms(check_period(options.server_period_ms)),
      publish_period_ms(check_period(options.publish_period_ms)) {
    settings = store.load_settings();
    register_operations();
    if (settings.persistence_mode == 2) {
        try {
            SavedScene saved;
            if (store.load_scene(kAutosave, saved)) install_saved(std::move(saved));
        } catch (const std::exception& e) {
            remember(fmt::format("start-up: cannot restore the autosaved scene: {}", e.what()));
        }
    }
    apply_gravity_property();
    clock = std::thread([this] { run_clock(); });
}

SimulationCore::Impl::~Impl() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    if (clock.joinable()) clock.join();
}

// ---- the operation table ----------------------------------------------------------------

template <class... A, class Produce>
SimulationCore::Impl::Handler SimulationCore::Impl::handler(const char* name, Produce produce) {
    return [this, name, produce](mp::ReadBuffer& in, uint64_t count, bool wait,
                                 std::vector<uint8_t>& out) {
        if (count != sizeof...(A))
            throw OperationError(kInvalidArgument,
                                 fmt::format("{} takes {} argument{}, got {}", name, sizeof...(A),
                                             sizeof...(A) == 1 ? "" : "s", count));
        std::tuple<std::decay_t<A>...> args;
        read_all(name, in, args, std::index_sequence_for<A...>{});
        if (in.remaining() != 0)
            throw OperationError(kInvalidArgument,
                                 fmt::format("{}: trailing bytes after the arguments", name));
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        if (wait)
            lock.lock();
        else if (!lock.try_lock())
            return false;
        // A state on its way to the publisher was taken before this call: it goes out first,
        // or a Reset's answer could be followed by a state of the world it replaced.
        if (publishing) {
            if (!wait) return false;
            published.wait(lock, [this] { return !publishing; });
        }
        std::apply([&out, &produce](const auto&... a) { produce(out, a...); }, args);
        return true;
    };
}

// The handler's signature is spelled by the catalogue's types, so a handler that drifts from
// the client's declaration of the same operation does not compile.
template <class R, class... A>
void SimulationCore::Impl::add(const char* name, R (Impl::*fn)(const A&...)) {
    Operation& op = table[std::string(kOperationPrefix) + name];
    op.quick = is_quick(name);
    op.run = handler<A...>(name, [this, fn](std::vector<uint8_t>& out, const A&... a) {
        pack_result(out, (this->*fn)(a...));
    });
}

void SimulationCore::Impl::register_operations() {
#define DAX_OPERATION_0(NAME, T) add<T>(#NAME, &Impl::op_##NAME);
#define DAX_OPERATION_1(NAME, T, A1) add<T, A1>(#NAME, &Impl::op_##NAME);
#define DAX_OPERATION_2(NAME, T, A1, A2) add<T, A1, A2>(#NAME, &Impl::op_##NAME);
#define DAX_OPERATION_3(NAME, T, A1, A2, A3) add<T, A1, A2, A3>(#NAME, &Impl::op_##NAME);
#define DAX_OPERATION_4(NAME, T, A1, A2, A3, A4) add<T, A1, A2, A3, A4>(#NAME, &Impl::op_##NAME);
#include <dax/types/operations.def>
#undef DAX_OPERATION_0
#undef DAX_OPERATION_1
#undef DAX_OPERATION_2
#undef DAX_OPERATION_3
#undef DAX_OPERATION_4
    // A scene can be megabytes: read where it lies in the received call, and answered by
    // writing the record once, straight into the result.
    table[std::string(kOperationPrefix) + "SEND_SCENE"].run = handler<BinaryView>(
        "SEND_SCENE", [this](std::vector<uint8_t>& out, const BinaryView& record) {
            pack_result(out, send_scene(record.data, record.size));
        });
    // A step's answer holds every body's state: written once, straight into the result.
    table[std::string(kOperationPrefix) + "STEP_SIMULATION"].run =
        handler<>("STEP_SIMULATION", [this](std::vector<uint8_t>& out) {
            step_world();
            write_result(out, true);
        });
    table[std::string(kOperationPrefix) + "GET_SERVER_SCENE"].run =
        handler<>("GET_SERVER_SCENE",
                  [this](std::vector<uint8_t>& out) { write_current_scene(out); });
}

bool SimulationCore::Impl::call(const std::string& procedure, const uint8_t* args, uint64_t size,
                                uint64_t count, bool wait, CallResult& r) {
    // The short name only serves texts; it is spelled when one is written.
    const auto short_name = [&procedure] {
        return procedure.rfind(kOperationPrefix, 0) == 0
                   ? procedure.substr(std::char_traits<char>::length(kOperationPrefix))
                   : procedure;
    };
    try {
        auto it = table.find(procedure);
        if (it == table.end()) {
            if (!wait) return false;
            throw OperationError(kNoSuchProcedure, fmt::format("no procedure '{}'", procedure));
        }
        if (!wait && !it->second.quick) return false;
        static const uint8_t kNothing = 0;
        mp::ReadBuffer in(args ? args : &kNothing, args ? size : 0);
        if (!it->second.run(in, count, wait, r.value)) return false;
        r.ok = true;
        if (log->should_log(spdlog::level::debug)) log->debug("{} done", short_name());
        return true;
    } catch (const OperationError& e) {
        r.error = e.uri;
        r.message = e.what();
    } catch (const Refusal& e) {
        r.error = e.uri;
        r.message = fmt::format("{}: {}", short_name(), e.what());
    } catch (const std::invalid_argument& e) {
        r.error = kInvalidArgument;
        r.message = fmt::format("{}: {}", short_name(), e.what());
    } catch (const std::out_of_range& e) {
        r.error = kNotFound;
        r.message = fmt::format("{}: {}", short_name(), e.what());
    } catch (const std::exception& e) {
        r.error = kFailed;
        r.message = fmt::format("{}: {}", short_name(), e.what());
    }
    r.ok = false;
    r.value.clear();
    // A failure is kept for GET_LAST_ERRORS under the lock, which only a waiting call may
    // wait for; the others leave it to be run again by one that may. The quick operations
    // refuse before they change anything, so running one twice does what running it once does.
    if (!wait) {
        r.error.clear();
        r.message.clear();
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    remember(fmt::format("{} ({})", r.message, r.error));
    return true;
}

void SimulationCore::Impl::remember(const std::string& text) {
    log->warn("{}", text);
    errors.push_back(text);
    while (errors.size() > kMaxErrors) errors.pop_front();
}

// ---- the scene and the world ------------------------------------------------------------

// What the world is built from, read from each component first, so a scene that cannot be
// built is refused before the running world is touched.
struct SimulationCore::Impl::Part {
    int64_t id = 0;
    bool ground = false;
    GroundData ground_data;
    BodyData body;
    const dax::types::mesh_batch_t* mesh = nullptr;
};

std::vector<SimulationCore::Impl::Part> SimulationCore::Impl::plan_world(
    const std::vector<Component>& components, const MeshStore& mesh_store) {
    std::vector<Part> parts;
    for (const Component& c : components) {
        try {
            Part p;
            p.id = c.id;
            if (c.type == kGroundType) {
                p.ground = true;
                p.ground_data = decode_ground(c.data);
            } else if (c.type == kBodyType) {
                p.body = decode_body(c.data);
                if (p.body.shape == Shape::mesh) {
                    const Mesh* mesh = mesh_store.find(p.body.mesh_id);
                    if (!mesh)
                        throw std::invalid_argument(
                            fmt::format("no triangle mesh with id {}", p.body.mesh_id));
                    p.mesh = &mesh->batch;
                }
                PhysicsWorld::check_body(p.body, p.mesh);
            } else {
                // Other types are kept as they came and sent back unchanged: this server does
                // not simulate them, but it must not lose them either.
                continue;
            }
            parts.push_back(std::move(p));
        } catch (const std::exception& e) {
            throw std::invalid_argument(
                fmt::format("component {} ({}): {}", c.id, c.type, e.what()));
        }
    }
    return parts;
}

// The world is emptied and rebuilt in place: a new one costs more than a small scene does.
void SimulationCore::Impl::build_world(const std::vector<Part>& parts) {
    const bool registered = world->registered();
    world->reset();
    for (const Part& p : parts) {
        if (p.ground)
            world->add_ground(p.id, p.ground_data);
        else
            world->add_body(p.id, p.body, p.mesh);
    }
    world->set_registered(registered);
}

void SimulationCore::Impl::install(std::vector<Component> components) {
    std::sort(components.begin(), components.end(),
              [](const Component& a, const Component& b) { return a.id < b.id; });
    build_world(plan_world(components, meshes));
    scene = std::move(components);
    steps = 0;
    sim_time = 0;
    last_published.clear();
}

void SimulationCore::Impl::install_saved(SavedScene saved) {
    // Meshes first: the bodies of the saved scene are built from them.
    MeshStore candidate = meshes;
    for (auto& [id, mesh] : saved.meshes) candidate.put(id, std::move(mesh));
    std::sort(saved.components.begin(), saved.components.end(),
              [](const Component& a, const Component& b) { return a.id < b.id; });
    build_world(plan_world(saved.components, candidate));
    meshes = std::move(candidate);
    scene = std::move(saved.components);
    steps = 0;
    sim_time = 0;
    last_published.clear();
}

// The data of a component as it stands now: a body's carries its current pose and velocities.
void SimulationCore::Impl::write_current(std::vector<uint8_t>& out, const Component& c) const {
    BodyState s;
    if (c.type != kBodyType || !world->state(c.id, s)) {
        out.insert(out.end(), c.data.begin(), c.data.end());
        return;
    }
    BodyData body = decode_body(c.data);
    body.pose = s.pose;
    body.linear = s.linear;
    body.angular = s.angular;
    encode(out, body);
}

// The scene as it stands now: bodies carry their current pose and velocities.
std::vector<Component> SimulationCore::Impl::current_scene() const {
    std::vector<Component> out = scene;
    for (Component& c : out) {
        if (c.type != kBodyType) continue;
        std::vector<uint8_t> data;
        write_current(data, c);
        c.data = std::move(data);
    }
    return out;
}

std::vector<uint8_t> SimulationCore::Impl::encode_current_scene() const {
    std::vector<uint8_t> out;
    encode_scene(out, scene,
                 [this](std::vector<uint8_t>& to, const Component& c) { write_current(to, c); });
    return out;
}

void SimulationCore::Impl::write_current_scene(std::vector<uint8_t>& out) const {
    // The binary value's header holds the record's length, known once it is written; its form
    // is chosen from an estimate and moved only in the rare case the record lands in another.
    const auto header_size = [](uint64_t n) -> size_t { return n < 256 ? 2 : n < 65536 ? 3 : 5; };
    uint64_t estimate = 5;
    for (const Component& c : scene) estimate += 32 + c.type.size() + c.data.size();
    const size_t at = out.size();
    size_t header = header_size(estimate);
    out.resize(at + header);
    encode_scene(out, scene,
                 [this](std::vector<uint8_t>& to, const Component& c) { write_current(to, c); });
    const uint64_t length = out.size() - at - header;
    if (length > 0xFFFFFFFFull) throw std::runtime_error("the scene is too large to send");
    if (header_size(length) != header) {
        const size_t wanted = header_size(length);
        if (wanted > header) out.insert(out.begin() + long(at), wanted - header, 0);
        else out.erase(out.begin() + long(at), out.begin() + long(at + header - wanted));
        header = wanted;
    }
    uint8_t* h = out.data() + at;
    if (header == 2) {
        h[0] = 0xC4;
        h[1] = uint8_t(length);
    } else if (header == 3) {
        h[0] = 0xC5;
        h[1] = uint8_t(length >> 8);
        h[2] = uint8_t(length);
    } else {
        h[0] = 0xC6;
        for (int i = 0; i < 4; ++i) h[1 + i] = uint8_t(length >> (24 - 8 * i));
    }
}

std::map<int64_t, Mesh> SimulationCore::Impl::meshes_used_by(
    const std::vector<Component>& components) const {
    std::map<int64_t, Mesh> used;
    for (const Component& c : components) {
        if (c.type != kBodyType) continue;
        const BodyData body = decode_body(c.data);
        if (body.shape != Shape::mesh) continue;
        if (const Mesh* m = meshes.find(body.mesh_id)) used[body.mesh_id] = *m;
    }
    return used;
}

void SimulationCore::Impl::apply_gravity_property() {
    auto it = settings.properties.find("gravity");
    if (it == settings.properties.end()) return;
    std::istringstream in(it->second);
    Vec3 g;
    if (!(in >> g.x >> g.y >> g.z) || !std::isfinite(g.x) || !std::isfinite(g.y) ||
        !std::isfinite(g.z))
        throw std::invalid_argument(
            fmt::format("property gravity '{}' is not three numbers", it->second));
    world->set_gravity(g);
}

void SimulationCore::Impl::autosave() {
    if (settings.persistence_mode >= 1) {
        const auto current = current_scene();
        store.save_scene(kAutosave, current, meshes_used_by(current));
    }
}

// One step of the world, unless a client holds it.
void SimulationCore::Impl::step_world() {
    const auto started = Clock::now();
    const double dt = server_period_ms / 1000.0;
    if (locks == 0) {
        world->step(dt);
        sim_time += dt;
        ++steps;
    }
    last_step_ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
}

// ---- the server clock -----------------------------------------------------------------

void SimulationCore::Impl::run_clock() {
    std::unique_lock<std::mutex> lock(mutex);
    auto next_step = Clock::now();
    auto next_publish = Clock::now();
    while (!stopping) {
        if (state != kRunning) {
            wake.wait(lock, [this] { return stopping || state == kRunning; });
            next_step = next_publish = Clock::now();
            continue;
        }
        const auto due = std::min(next_step, next_publish);
        if (wake.wait_until(lock, due, [this] { return stopping || state != kRunning; })) continue;
        const auto now = Clock::now();
        const auto step_period = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double, std::milli>(server_period_ms));
        const auto publish_period = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double, std::milli>(publish_period_ms));
        if (now >= next_step) {
            // Only published steps are encoded, and only when they are published.
            if (scheduling) step_world();
            next_step += step_period;
            // A world too big for its period falls behind; skip the backlog instead of
            // spiralling.
            if (now - next_step > 5 * step_period) next_step = now + step_period;
        }
        if (now >= next_publish) {
            next_publish += publish_period;
            if (now - next_publish > 5 * publish_period) next_publish = now + publish_period;
            if (!publisher) continue;
            std::vector<uint8_t>& value = publish_value;
            value.clear();
            write_result(value, false);
            Publisher out = publisher;
            publishing = true;
            lock.unlock();
            try {
                out(kUpdateTopic, value);
            } catch (const std::exception& e) {
                log->error("publishing a state failed: {}", e.what());
            }
            lock.lock();
            publishing = false;
            published.notify_all();
        }
    }
}

std::vector<Component> SimulationCore::Impl::current_scene_without(
    const std::vector<int64_t>& ids) const {
    std::vector<Component> out;
    for (Component& c : current_scene())
        if (std::find(ids.begin(), ids.end(), c.id) == ids.end()) out.push_back(std::move(c));
    return out;
}

// ---- the public face ----------------------------------------------------------------------

SimulationCore::SimulationCore(CoreOptions options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

SimulationCore::~SimulationCore() = default;

void SimulationCore::set_publisher(Publisher publisher) {
    std::unique_lock<std::mutex> lock(impl_->mutex);
    // Whoever replaces the publisher may destroy what the old one used once this returns.
    impl_->published.wait(lock, [this] { return !impl_->publishing; });
    impl_->publisher = std::move(publisher);
}

CallResult SimulationCore::call(const std::string& procedure, const uint8_t* args, uint64_t size,
                                uint64_t count) {
    CallResult r;
    impl_->call(procedure, args, size, count, true, r);
    return r;
}

bool SimulationCore::try_call(const std::string& procedure, const uint8_t* args, uint64_t size,
                              uint64_t count, CallResult& result) {
    return impl_->call(procedure, args, size, count, false, result);
}

bool SimulationCore::quit_requested() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->quit;
}

void SimulationCore::wait_for_quit() {
    std::unique_lock<std::mutex> lock(impl_->mutex);
    impl_->quit_cv.wait(lock, [this] { return impl_->quit; });
}

void SimulationCore::request_quit() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->quit) return;
    impl_->state = kStopped;
    try {
        impl_->autosave();
    } catch (const std::exception& e) {
        impl_->remember(fmt::format("shutdown: autosave failed: {}", e.what()));
    }
    impl_->quit = true;
    impl_->wake.notify_all();
    impl_->quit_cv.notify_all();
}

std::vector<std::string> SimulationCore::procedures() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
#define DAX_OPERATION_0(NAME, ...) out.push_back(std::string(kOperationPrefix) + #NAME);
#define DAX_OPERATION_1 DAX_OPERATION_0
#define DAX_OPERATION_2 DAX_OPERATION_0
#define DAX_OPERATION_3 DAX_OPERATION_0
#define DAX_OPERATION_4 DAX_OPERATION_0
#include <dax/types/operations.def>
#undef DAX_OPERATION_0
#undef DAX_OPERATION_1
#undef DAX_OPERATION_2
#undef DAX_OPERATION_3
#undef DAX_OPERATION_4
        std::sort(out.begin(), out.end());
        return out;
    }();
    return names;
}

}  // namespace qor::sim
