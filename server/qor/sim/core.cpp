#include <qor/sim/core.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>

#include <fmt/format.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <dax/types/mesh.hpp>
#include <dax/types/persistence.hpp>
#include <dax/types/simulation.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/sim/meshes.hpp>
#include <qor/sim/scene.hpp>
#include <qor/sim/store.hpp>
#include <qor/sim/world.hpp>

#ifndef QOR_SIM_VERSION
#define QOR_SIM_VERSION "0.0.0"
#endif

// Every operation once: its name (the last part of its procedure URI) and its member.
#define QOR_SIM_OPERATIONS(X)                                       \
    X(AUTHENTICATE, authenticate)                                   \
    X(BROWSE_PERSISTENCES, browse_persistences)                     \
    X(CLEAR_BODIES_PERSISTENCES, clear_bodies_persistences)         \
    X(CLEAR_PERSISTENCES, clear_persistences)                       \
    X(CLEAR_SCENE, clear_scene)                                     \
    X(CLEAR_SCENE_PERSISTENCES, clear_scene_persistences)           \
    X(CLEAR_TRIMESHES, clear_trimeshes)                             \
    X(COMPONENTS_REGISTERED, components_registered)                 \
    X(CONFIGURE_COMPONENTS, configure_components)                   \
    X(CREATE_COMPONENTS, create_components)                         \
    X(CREATE_TRIMESH, create_trimesh)                               \
    X(DUMP, dump)                                                   \
    X(DUMP_MESHES_TO_OBJ, dump_meshes_to_obj)                       \
    X(ENABLE_SCHEDULING, enable_scheduling)                         \
    X(GET_LAST_ERRORS, get_last_errors)                             \
    X(GET_LOGS_LABELS, get_logs_labels)                             \
    X(GET_PERSISTENCE_MODE, get_persistence_mode)                   \
    X(GET_PROPERTY, get_property)                                   \
    X(GET_SERVER_BUILD_NUMBER, get_server_build_number)             \
    X(GET_SERVER_SCENE, get_server_scene)                           \
    X(GET_TRIMESH, get_trimesh)                                     \
    X(GET_TRIMESH_INFO, get_trimesh_info)                           \
    X(HAS_PROPERTY, has_property)                                   \
    X(LOAD_COMPONENTS, load_components)                             \
    X(LOCK_PHYSIC, lock_physic)                                     \
    X(PAUSE_SIMULATION, pause_simulation)                           \
    X(QUIT, quit_server)                                            \
    X(REGISTER_COMPONENTS, register_components)                     \
    X(RESUME_SIMULATION, resume_simulation)                         \
    X(SAVE_COMPONENTS, save_components)                             \
    X(SEND_SCENE, send_scene)                                       \
    X(SET_PERSISTENCE_MODE, set_persistence_mode)                   \
    X(SET_PROPERTY, set_property)                                   \
    X(SET_PUBLISH_COMPRESSION_LEVEL, set_publish_compression_level) \
    X(SET_PUBLISH_PERIOD_MS, set_publish_period_ms)                 \
    X(SET_SERVER_PERIOD_MS, set_server_period_ms)                   \
    X(SET_VERBOSE, set_verbose)                                     \
    X(START_SIMULATION, start_simulation)                           \
    X(STEP_SIMULATION, step_simulation)                             \
    X(STOP_SIMULATION, stop_simulation)                             \
    X(UNLOCK_PHYSIC, unlock_physic)                                 \
    X(UNREGISTER_COMPONENTS, unregister_components)                 \
    X(UPDATE_TRIMESH, update_trimesh)

namespace qor::sim {

namespace mp = serialization::msgpack;
namespace dt = dax::types;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kPrefix = "qor.server.operation.";
constexpr const char* kInvalidArgument = "wamp.error.invalid_argument";
constexpr const char* kNoSuchProcedure = "wamp.error.no_such_procedure";
constexpr const char* kNotFound = "qor.error.not_found";
constexpr const char* kInvalidState = "qor.error.invalid_state";
constexpr const char* kNotAuthorized = "qor.error.not_authorized";
constexpr const char* kFailed = "qor.error.operation_failed";
constexpr const char* kAutosave = "autosave";
constexpr size_t kMaxErrors = 100;

enum SimState { kStopped = 0, kRunning = 1, kPaused = 2 };

/// A failure with its own error URI.
struct OperationError : std::runtime_error {
    OperationError(const char* uri, const std::string& text) : std::runtime_error(text), uri(uri) {}
    const char* uri;
};

// ---- strict argument readers --------------------------------------------------------------
// The codec is liberal where the client contract wants it (any byte is a boolean); a server
// facing arbitrary peers says which argument is wrong instead.

uint8_t peek(const mp::ReadBuffer& in) {
    if (in.remaining() == 0) throw std::runtime_error("unexpected end of data");
    return *in.current();
}

bool is_integer_byte(uint8_t b) {
    return b <= 0x7f || b >= 0xe0 || (b >= 0xcc && b <= 0xd3);
}

void read_arg(mp::ReadBuffer& in, bool& value) {
    const uint8_t b = peek(in);
    if (b != 0xc2 && b != 0xc3) throw std::runtime_error("not a boolean");
    mp::read(in, value);
}
void read_arg(mp::ReadBuffer& in, int& value) {
    if (!is_integer_byte(peek(in))) throw std::runtime_error("not an integer");
    long long wide = 0;
    mp::read(in, wide);
    if (wide < INT32_MIN || wide > INT32_MAX) throw std::runtime_error("out of the 32-bit range");
    value = static_cast<int>(wide);
}
void read_arg(mp::ReadBuffer& in, long long& value) {
    if (!is_integer_byte(peek(in))) throw std::runtime_error("not an integer");
    mp::read(in, value);
}
void read_arg(mp::ReadBuffer& in, double& value) {
    const uint8_t b = peek(in);
    if (b == 0xca || b == 0xcb) {
        mp::read(in, value);
    } else if (is_integer_byte(b)) {
        long long whole = 0;
        mp::read(in, whole);
        value = static_cast<double>(whole);
    } else {
        throw std::runtime_error("not a number");
    }
}
void read_arg(mp::ReadBuffer& in, std::string& value) {
    mp::read(in, value);
}
void read_arg(mp::ReadBuffer& in, mp::buffer& value) {
    mp::read(in, value);
}
template <class T, std::enable_if_t<dt::is_record_v<T>, int> = 0>
void read_arg(mp::ReadBuffer& in, T& value) {
    dt::read(in, value);
}

template <class T>
constexpr const char* type_name() {
    if constexpr (std::is_same_v<T, bool>)
        return "a boolean";
    else if constexpr (std::is_same_v<T, int> || std::is_same_v<T, long long>)
        return "an integer";
    else if constexpr (std::is_same_v<T, double>)
        return "a number";
    else if constexpr (std::is_same_v<T, std::string>)
        return "a string";
    else if constexpr (std::is_same_v<T, mp::buffer>)
        return "binary data";
    else if constexpr (std::is_same_v<T, dt::vector_string_t>)
        return "a list of strings";
    else if constexpr (std::is_same_v<T, dt::mesh_batch_t>)
        return "a mesh batch";
    else
        return "a value";
}

template <class T>
void pack_result(std::vector<uint8_t>& out, const T& value) {
    if constexpr (dt::is_record_v<T>) {
        dt::pack(out, value);
    } else {
        mp::pack(out, value);
    }
}

double check_period(double ms) {
    if (!std::isfinite(ms) || ms < 1 || ms > 60000)
        throw std::invalid_argument(fmt::format("period {} ms is outside 1..60000", ms));
    return ms;
}

}  // namespace

struct SimulationCore::Impl {
    using Handler = std::function<std::vector<uint8_t>(mp::ReadBuffer&, uint64_t)>;

    CoreOptions options;
    std::shared_ptr<spdlog::logger> log;
    Store store;
    std::map<std::string, Handler> table;

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
    std::map<int64_t, std::vector<uint8_t>> last_published;
    Publisher publisher;
    bool publishing = false;  // the clock thread is inside the publisher, lock released
    std::condition_variable published;
    bool quit = false;
    bool stopping = false;
    std::condition_variable quit_cv;
    std::thread clock;

    explicit Impl(CoreOptions opts)
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

    ~Impl() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_all();
        if (clock.joinable()) clock.join();
    }

    // ---- the operation table --------------------------------------------------------------

    template <class R, class... A>
    void add(const char* name, R (Impl::*fn)(const A&...)) {
        table[std::string(kPrefix) + name] = [this, fn, name](mp::ReadBuffer& in, uint64_t count) {
            if (count != sizeof...(A))
                throw OperationError(
                    kInvalidArgument,
                    fmt::format("{} takes {} argument{}, got {}", name, sizeof...(A),
                                sizeof...(A) == 1 ? "" : "s", count));
            std::tuple<std::decay_t<A>...> args;
            read_all(name, in, args, std::index_sequence_for<A...>{});
            if (in.remaining() != 0)
                throw OperationError(kInvalidArgument,
                                     fmt::format("{}: trailing bytes after the arguments", name));
            std::vector<uint8_t> out;
            std::lock_guard<std::mutex> lock(mutex);
            pack_result(
                out, std::apply([this, fn](const auto&... a) { return (this->*fn)(a...); }, args));
            return out;
        };
    }

    template <class Tuple, size_t... I>
    static void read_all(const char* name, mp::ReadBuffer& in, Tuple& args,
                         std::index_sequence<I...>) {
        (void)name;  // unused by operations without arguments
        (read_one(name, I, in, std::get<I>(args)), ...);
    }

    template <class T>
    static void read_one(const char* name, size_t index, mp::ReadBuffer& in, T& value) {
        try {
            read_arg(in, value);
        } catch (const std::exception& e) {
            throw OperationError(kInvalidArgument,
                                 fmt::format("argument {} of {} must be {}: {}", index + 1, name,
                                             type_name<T>(), e.what()));
        }
    }

    void register_operations() {
#define QOR_SIM_ADD(NAME, member) add(#NAME, &Impl::member);
        QOR_SIM_OPERATIONS(QOR_SIM_ADD)
#undef QOR_SIM_ADD
    }

    CallResult call(const std::string& procedure, const uint8_t* args, uint64_t size,
                    uint64_t count) {
        CallResult r;
        const std::string short_name =
            procedure.rfind(kPrefix, 0) == 0
                ? procedure.substr(std::char_traits<char>::length(kPrefix))
                : procedure;
        try {
            auto it = table.find(procedure);
            if (it == table.end())
                throw OperationError(kNoSuchProcedure, fmt::format("no procedure '{}'", procedure));
            static const uint8_t kNothing = 0;
            mp::ReadBuffer in(args ? args : &kNothing, args ? size : 0);
            r.value = it->second(in, count);
            r.ok = true;
            log->debug("{} done", short_name);
            return r;
        } catch (const OperationError& e) {
            r.error = e.uri;
            r.message = e.what();
        } catch (const std::invalid_argument& e) {
            r.error = kInvalidArgument;
            r.message = fmt::format("{}: {}", short_name, e.what());
        } catch (const std::out_of_range& e) {
            r.error = kNotFound;
            r.message = fmt::format("{}: {}", short_name, e.what());
        } catch (const std::exception& e) {
            r.error = kFailed;
            r.message = fmt::format("{}: {}", short_name, e.what());
        }
        r.ok = false;
        r.value.clear();
        std::lock_guard<std::mutex> lock(mutex);
        remember(fmt::format("{} ({})", r.message, r.error));
        return r;
    }

    void remember(const std::string& text) {
        log->warn("{}", text);
        errors.push_back(text);
        while (errors.size() > kMaxErrors) errors.pop_front();
    }

    // ---- the scene and the world ----------------------------------------------------------

    // Builds a complete new world first, so a scene that cannot be built leaves the running one
    // untouched.
    std::unique_ptr<PhysicsWorld> build_world(const std::vector<Component>& components,
                                              const MeshStore& mesh_store) const {
        auto fresh = std::make_unique<PhysicsWorld>();
        fresh->set_gravity(world->gravity());
        for (const Component& c : components) {
            try {
                if (c.type == kGroundType) {
                    fresh->add_ground(c.id, decode_ground(c.data));
                } else if (c.type == kBodyType) {
                    const BodyData body = decode_body(c.data);
                    const Mesh* mesh = nullptr;
                    if (body.shape == Shape::mesh) {
                        mesh = mesh_store.find(body.mesh_id);
                        if (!mesh)
                            throw std::invalid_argument(
                                fmt::format("no triangle mesh with id {}", body.mesh_id));
                    }
                    fresh->add_body(c.id, body, mesh ? &mesh->batch : nullptr);
                }
                // Other types are kept as they came and sent back unchanged: this server does
                // not simulate them, but it must not lose them either.
            } catch (const std::exception& e) {
                throw std::invalid_argument(
                    fmt::format("component {} ({}): {}", c.id, c.type, e.what()));
            }
        }
        fresh->set_registered(world->registered());
        return fresh;
    }

    void install(std::vector<Component> components) {
        std::sort(components.begin(), components.end(),
                  [](const Component& a, const Component& b) { return a.id < b.id; });
        world = build_world(components, meshes);
        scene = std::move(components);
        steps = 0;
        sim_time = 0;
        last_published.clear();
    }

    void install_saved(SavedScene saved) {
        // Meshes first: the bodies of the saved scene are built from them.
        MeshStore candidate = meshes;
        for (auto& [id, mesh] : saved.meshes) candidate.put(id, std::move(mesh));
        std::sort(saved.components.begin(), saved.components.end(),
                  [](const Component& a, const Component& b) { return a.id < b.id; });
        world = build_world(saved.components, candidate);
        meshes = std::move(candidate);
        scene = std::move(saved.components);
        steps = 0;
        sim_time = 0;
        last_published.clear();
    }

    // The scene as it stands now: bodies carry their current pose and velocities.
    std::vector<Component> current_scene() const {
        std::vector<Component> out = scene;
        for (Component& c : out) {
            if (c.type != kBodyType) continue;
            BodyState s;
            if (!world->state(c.id, s)) continue;
            BodyData body = decode_body(c.data);
            body.pose = s.pose;
            body.linear = s.linear;
            body.angular = s.angular;
            c.data.clear();
            encode(c.data, body);
        }
        return out;
    }

    std::map<int64_t, Mesh> meshes_used_by(const std::vector<Component>& components) const {
        std::map<int64_t, Mesh> used;
        for (const Component& c : components) {
            if (c.type != kBodyType) continue;
            const BodyData body = decode_body(c.data);
            if (body.shape != Shape::mesh) continue;
            if (const Mesh* m = meshes.find(body.mesh_id)) used[body.mesh_id] = *m;
        }
        return used;
    }

    void apply_gravity_property() {
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

    void save_settings() {
        store.save_settings(settings);
    }

    void autosave() {
        if (settings.persistence_mode >= 1) {
            const auto current = current_scene();
            store.save_scene(kAutosave, current, meshes_used_by(current));
        }
    }

    // One step of the world and its result. `every` asks for all bodies whatever the
    // compression level (the step call's answer always has them all).
    dt::integration_result_t advance(bool every) {
        const auto started = Clock::now();
        const double dt = server_period_ms / 1000.0;
        if (locks == 0) {
            world->step(dt);
            sim_time += dt;
            ++steps;
        }
        last_step_ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        return result(every);
    }

    dt::integration_result_t result(bool every) {
        std::vector<uint8_t> map;
        std::vector<std::pair<int64_t, std::vector<uint8_t>>> entries;
        for (const auto& [id, s] : world->states()) {
            std::vector<uint8_t> bytes;
            encode(bytes, s);
            if (!every && compression > 0) {
                // Leaving out what did not change since the last publication is lossless: the
                // client keeps the last state it was given.
                auto it = last_published.find(id);
                if (it != last_published.end() && it->second == bytes) continue;
            }
            entries.emplace_back(id, std::move(bytes));
        }
        mp::pack_map_header(map, entries.size());
        for (auto& [id, bytes] : entries) {
            mp::pack(map, static_cast<long long>(id));
            map.insert(map.end(), bytes.begin(), bytes.end());
            if (!every) last_published[id] = std::move(bytes);
        }
        const WorldStats stats = world->stats();
        const Vec3 g = world->gravity();
        dt::integration_result_t r;
        r.states = mp::buffer(map);
        r.value_int = static_cast<int>(steps);
        r.vec_a = {float(g.x), float(g.y), float(g.z)};
        r.vec_b = {float(stats.centre.x), float(stats.centre.y), float(stats.centre.z)};
        r.details.i1 = stats.bodies;
        r.details.f2 = float(sim_time);
        r.details.f3 = float(server_period_ms / 1000.0);
        r.details.f4 = float(last_step_ms);
        r.details.i5 = stats.active;
        r.details.f6 = float(stats.kinetic);
        r.details.f7 = float(stats.max_speed);
        r.details.i8 = stats.contacts;
        r.details.i9 = state;
        return r;
    }

    // ---- the server clock -----------------------------------------------------------------

    void run_clock() {
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
            if (wake.wait_until(lock, due, [this] { return stopping || state != kRunning; }))
                continue;
            const auto now = Clock::now();
            const auto step_period = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double, std::milli>(server_period_ms));
            const auto publish_period = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double, std::milli>(publish_period_ms));
            if (now >= next_step) {
                if (scheduling) advance(true);
                next_step += step_period;
                // A world too big for its period falls behind; skip the backlog instead of
                // spiralling.
                if (now - next_step > 5 * step_period) next_step = now + step_period;
            }
            if (now >= next_publish) {
                next_publish += publish_period;
                if (now - next_publish > 5 * publish_period) next_publish = now + publish_period;
                if (!publisher) continue;
                std::vector<uint8_t> value;
                dt::pack(value, result(false));
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

    // ---- operations -----------------------------------------------------------------------

    std::string authenticate(const std::string& secret) {
        if (options.secret.empty()) return "anonymous";
        if (secret != options.secret)
            throw OperationError(kNotAuthorized, "AUTHENTICATE: wrong secret");
        return "authenticated";
    }

    dt::vector_pair_string_double_t browse_persistences() {
        dt::vector_pair_string_double_t out;
        for (auto& [name, when] : store.list()) out.values.push_back({name, when});
        return out;
    }

    dt::vector_bool_t clear_bodies_persistences(const std::string& name,
                                                const dt::vector_string_t& ids, const bool& live) {
        SavedScene saved;
        if (!store.load_scene(name, saved))
            throw std::out_of_range(fmt::format("no persistence named '{}'", name));
        dt::vector_bool_t found;
        std::vector<int64_t> removed;
        for (const std::string& text : ids.values) {
            int64_t id = 0;
            size_t used = 0;
            try {
                id = std::stoll(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used != text.size() || text.empty())
                throw std::invalid_argument(fmt::format("'{}' is not a component id", text));
            auto it = std::find_if(saved.components.begin(), saved.components.end(),
                                   [id](const Component& c) { return c.id == id; });
            found.values.push_back(it != saved.components.end());
            if (it != saved.components.end()) {
                saved.components.erase(it);
                removed.push_back(id);
            }
        }
        // Keep only the meshes that the remaining bodies still use.
        std::map<int64_t, Mesh> used;
        for (const Component& c : saved.components) {
            if (c.type != kBodyType) continue;
            const BodyData body = decode_body(c.data);
            auto m = saved.meshes.find(body.mesh_id);
            if (body.shape == Shape::mesh && m != saved.meshes.end()) used[m->first] = m->second;
        }
        store.save_scene(name, saved.components, used);
        if (live && std::any_of(scene.begin(), scene.end(), [&removed](const Component& c) {
                return std::find(removed.begin(), removed.end(), c.id) != removed.end();
            }))
            install(current_scene_without(removed));
        return found;
    }

    std::vector<Component> current_scene_without(const std::vector<int64_t>& ids) const {
        std::vector<Component> out;
        for (Component& c : current_scene())
            if (std::find(ids.begin(), ids.end(), c.id) == ids.end()) out.push_back(std::move(c));
        return out;
    }

    bool clear_persistences() {
        return store.remove_all_scenes() > 0;
    }

    int clear_scene() {
        const int n = static_cast<int>(scene.size());
        install({});
        return n;
    }

    bool clear_scene_persistences(const std::string& name, const bool& live) {
        const bool removed = store.remove_scene(name);
        if (live) install({});
        return removed;
    }

    int clear_trimeshes() {
        return meshes.clear();
    }

    bool components_registered() {
        return world->registered();
    }

    int configure_components() {
        apply_gravity_property();
        return world->body_count();
    }

    int create_components() {
        install(scene);
        return world->body_count();
    }

    long long create_trimesh(const std::string& name, const int& vertices, const int& triangles,
                             const int& pairs) {
        return meshes.create(name, vertices, triangles, pairs);
    }

    int dump() {
        log->info("scene: {} components, {} bodies, {} meshes, step {}, t = {:.3f} s", scene.size(),
                  world->body_count(), meshes.all().size(), steps, sim_time);
        for (const Component& c : scene) {
            BodyState s;
            if (world->state(c.id, s))
                log->info("  {} {} (client {}) at ({:.3f}, {:.3f}, {:.3f})", c.type, c.id,
                          c.client_id, s.pose.position.x, s.pose.position.y, s.pose.position.z);
            else
                log->info("  {} {} (client {})", c.type, c.id, c.client_id);
        }
        return static_cast<int>(scene.size());
    }

    int dump_meshes_to_obj(const std::string& folder) {
        namespace fs = std::filesystem;
        fs::path target = folder.empty() ? fs::path(store.folder()) / "meshes" : fs::path(folder);
        if (target.is_relative()) target = fs::path(store.folder()) / target;
        std::error_code ec;
        fs::create_directories(target, ec);
        if (!fs::is_directory(target))
            throw std::invalid_argument(fmt::format("cannot use folder {}", target.string()));
        int written = 0;
        for (const auto& [id, mesh] : meshes.all()) {
            std::string stem = fmt::format("mesh_{}", id);
            if (Store::valid_name(mesh.name)) stem += "_" + mesh.name;
            write_obj((target / (stem + ".obj")).string(), mesh);
            ++written;
        }
        return written;
    }

    int enable_scheduling(const bool& on) {
        const bool was = scheduling;
        scheduling = on;
        return was ? 1 : 0;
    }

    dt::vector_string_t get_last_errors(const bool& clear) {
        dt::vector_string_t out;
        out.values.assign(errors.begin(), errors.end());
        if (clear) errors.clear();
        return out;
    }

    std::string get_logs_labels() {
        return "core,physics,scene,meshes,persistence,devices,network";
    }

    int get_persistence_mode() {
        return settings.persistence_mode;
    }

    std::string get_property(const std::string& name) {
        auto it = settings.properties.find(name);
        if (it == settings.properties.end())
            throw std::out_of_range(fmt::format("no property named '{}'", name));
        return it->second;
    }

    std::string get_server_build_number() {
        return QOR_SIM_VERSION;
    }

    mp::buffer get_server_scene() {
        return mp::buffer(encode_scene(current_scene()));
    }

    dt::mesh_batch_t get_trimesh(const long long& id) {
        return meshes.get(id).batch;
    }

    dt::mesh_info_t get_trimesh_info(const long long& id) {
        const Mesh& m = meshes.get(id);
        dt::mesh_info_t info;
        info.value_1 = static_cast<int>(m.batch.vertices.size());
        info.value_2 = static_cast<int>(m.batch.triangles.size());
        info.value_3 = static_cast<int>(m.batch.pairs.size());
        info.text = m.name;
        return info;
    }

    bool has_property(const std::string& name) {
        return settings.properties.count(name) > 0;
    }

    int load_components(const std::string& name) {
        if (!Store::valid_name(name))
            throw std::invalid_argument(fmt::format("bad persistence name '{}'", name));
        SavedScene saved;
        if (!store.load_scene(name, saved))
            throw std::out_of_range(fmt::format("no persistence named '{}'", name));
        install_saved(std::move(saved));
        return static_cast<int>(scene.size());
    }

    int lock_physic() {
        return ++locks;
    }

    int unlock_physic() {
        if (locks > 0) --locks;
        return locks;
    }

    int pause_simulation() {
        if (state == kStopped)
            throw OperationError(kInvalidState, "PAUSE_SIMULATION: the simulation is not started");
        state = kPaused;
        return state;
    }

    int resume_simulation() {
        if (state == kStopped)
            throw OperationError(kInvalidState, "RESUME_SIMULATION: the simulation is not started");
        state = kRunning;
        wake.notify_all();
        return state;
    }

    int start_simulation() {
        state = kRunning;
        wake.notify_all();
        return state;
    }

    int stop_simulation() {
        state = kStopped;
        wake.notify_all();
        autosave();
        return state;
    }

    int quit_server() {
        state = kStopped;
        autosave();
        quit = true;
        wake.notify_all();
        quit_cv.notify_all();
        return 0;
    }

    int register_components() {
        world->set_registered(true);
        return static_cast<int>(scene.size());
    }

    int unregister_components() {
        world->set_registered(false);
        return static_cast<int>(scene.size());
    }

    int save_components(const std::string& name) {
        const auto current = current_scene();
        store.save_scene(name, current, meshes_used_by(current));
        return static_cast<int>(current.size());
    }

    int send_scene(const mp::buffer& data) {
        std::vector<Component> components;
        try {
            components = decode_scene(data.data, data.size);
        } catch (const std::exception& e) {
            throw std::invalid_argument(fmt::format("bad scene record: {}", e.what()));
        }
        install(std::move(components));
        return static_cast<int>(scene.size());
    }

    bool set_persistence_mode(const int& mode) {
        if (mode < 0 || mode > 2) return false;
        Settings next = settings;
        next.persistence_mode = mode;
        store.save_settings(next);
        settings = std::move(next);
        return true;
    }

    int set_property(const std::string& name, const std::string& value) {
        if (name.empty()) throw std::invalid_argument("a property needs a name");
        Settings next = settings;
        const bool created = next.properties.count(name) == 0;
        next.properties[name] = value;
        store.save_settings(next);
        settings = std::move(next);
        return created ? 1 : 0;
    }

    int set_publish_compression_level(const int& level) {
        if (level < 0 || level > 9)
            throw std::invalid_argument(fmt::format("compression level {} is outside 0..9", level));
        const int was = compression;
        compression = level;
        last_published.clear();
        return was;
    }

    int set_publish_period_ms(const double& ms) {
        const int was = static_cast<int>(std::lround(publish_period_ms));
        publish_period_ms = check_period(ms);
        wake.notify_all();
        return was;
    }

    int set_server_period_ms(const double& ms) {
        const int was = static_cast<int>(std::lround(server_period_ms));
        server_period_ms = check_period(ms);
        wake.notify_all();
        return was;
    }

    int set_verbose(const bool& on) {
        const bool was = verbose;
        verbose = on;
        log->set_level(on ? spdlog::level::debug : spdlog::level::info);
        return was ? 1 : 0;
    }

    dt::integration_result_t step_simulation() {
        return advance(true);
    }

    int update_trimesh(const long long& id, const int& vertex_offset, const int& triangle_offset,
                       const dt::mesh_batch_t& batch) {
        return meshes.update(id, vertex_offset, triangle_offset, batch);
    }
};

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
    return impl_->call(procedure, args, size, count);
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
#define QOR_SIM_NAME(NAME, member) std::string(kPrefix) + #NAME,
        std::vector<std::string> out{QOR_SIM_OPERATIONS(QOR_SIM_NAME)};
#undef QOR_SIM_NAME
        std::sort(out.begin(), out.end());
        return out;
    }();
    return names;
}

}  // namespace qor::sim
