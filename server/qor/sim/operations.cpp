#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <qor/sim/arguments.hpp>
#include <qor/sim/core_state.hpp>

#ifndef QOR_SIM_VERSION
#define QOR_SIM_VERSION "0.0.0"
#endif

// The handlers of the operations, one per line of the shared catalogue. Each runs with the
// core's lock held; a std::invalid_argument becomes wamp.error.invalid_argument and a
// std::out_of_range qor.error.not_found, the text prefixed with the operation's name.
namespace qor::sim {

namespace mp = serialization::msgpack;
namespace dt = dax::types;

std::string SimulationCore::Impl::op_AUTHENTICATE(const std::string& secret) {
    if (options.secret.empty()) return "anonymous";
    if (secret != options.secret) throw Refusal(kNotAuthorized, "wrong secret");
    return "authenticated";
}

dt::vector_pair_string_double_t SimulationCore::Impl::op_BROWSE_PERSISTENCES() {
    dt::vector_pair_string_double_t out;
    for (auto& [name, when] : store.list()) out.values.push_back({name, when});
    return out;
}

dt::vector_bool_t SimulationCore::Impl::op_CLEAR_BODIES_PERSISTENCES(const std::string& name,
                                                                     const dt::vector_string_t& ids,
                                                                     const bool& live) {
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

bool SimulationCore::Impl::op_CLEAR_PERSISTENCES() {
    return store.remove_all_scenes() > 0;
}

int SimulationCore::Impl::op_CLEAR_SCENE() {
    const int n = static_cast<int>(scene.size());
    install({});
    return n;
}

bool SimulationCore::Impl::op_CLEAR_SCENE_PERSISTENCES(const std::string& name, const bool& live) {
    const bool removed = store.remove_scene(name);
    if (live) install({});
    return removed;
}

int SimulationCore::Impl::op_CLEAR_TRIMESHES() {
    return meshes.clear();
}

bool SimulationCore::Impl::op_COMPONENTS_REGISTERED() {
    return world->registered();
}

int SimulationCore::Impl::op_CONFIGURE_COMPONENTS() {
    apply_gravity_property();
    return world->body_count();
}

int SimulationCore::Impl::op_CREATE_COMPONENTS() {
    install(scene);
    return world->body_count();
}

long long SimulationCore::Impl::op_CREATE_TRIMESH(const std::string& name, const int& vertices,
                                                  const int& triangles, const int& pairs) {
    return meshes.create(name, vertices, triangles, pairs);
}

int SimulationCore::Impl::op_DUMP() {
    log->info("scene: {} components, {} bodies, {} meshes, step {}, t = {:.3f} s", scene.size(),
              world->body_count(), meshes.all().size(), steps, sim_time);
    for (const Component& c : scene) {
        BodyState s;
        if (world->state(c.id, s))
            log->info("  {} {} (client {}) at ({:.3f}, {:.3f}, {:.3f})", c.type, c.id, c.client_id,
                      s.pose.position.x, s.pose.position.y, s.pose.position.z);
        else
            log->info("  {} {} (client {})", c.type, c.id, c.client_id);
    }
    return static_cast<int>(scene.size());
}

int SimulationCore::Impl::op_DUMP_MESHES_TO_OBJ(const std::string& folder) {
    namespace fs = std::filesystem;
    // Any session may call this: every folder it names stays inside the data folder, which is
    // joined once (a relative data folder is not doubled).
    const fs::path inside =
        folder.empty() ? fs::path("meshes") : fs::path(folder).lexically_normal();
    if (inside.has_root_name() || inside.has_root_directory() ||
        (!inside.empty() && *inside.begin() == ".."))
        throw std::invalid_argument(fmt::format("folder '{}' is outside the data folder", folder));
    const fs::path target = fs::path(store.folder()) / inside;
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

int SimulationCore::Impl::op_ENABLE_SCHEDULING(const bool& on) {
    const bool was = scheduling;
    scheduling = on;
    return was ? 1 : 0;
}

dt::vector_string_t SimulationCore::Impl::op_GET_LAST_ERRORS(const bool& clear) {
    dt::vector_string_t out;
    out.values.assign(errors.begin(), errors.end());
    if (clear) errors.clear();
    return out;
}

std::string SimulationCore::Impl::op_GET_LOGS_LABELS() {
    return "core,physics,scene,meshes,persistence,devices,network";
}

int SimulationCore::Impl::op_GET_PERSISTENCE_MODE() {
    return settings.persistence_mode;
}

std::string SimulationCore::Impl::op_GET_PROPERTY(const std::string& name) {
    auto it = settings.properties.find(name);
    if (it == settings.properties.end())
        throw std::out_of_range(fmt::format("no property named '{}'", name));
    return it->second;
}

std::string SimulationCore::Impl::op_GET_SERVER_BUILD_NUMBER() {
    return QOR_SIM_VERSION;
}

mp::buffer SimulationCore::Impl::op_GET_SERVER_SCENE() {
    return mp::buffer(encode_current_scene());
}

dt::mesh_batch_t SimulationCore::Impl::op_GET_TRIMESH(const long long& id) {
    return meshes.get(id).batch;
}

dt::mesh_info_t SimulationCore::Impl::op_GET_TRIMESH_INFO(const long long& id) {
    const Mesh& m = meshes.get(id);
    dt::mesh_info_t info;
    info.value_1 = static_cast<int>(m.batch.vertices.size());
    info.value_2 = static_cast<int>(m.batch.triangles.size());
    info.value_3 = static_cast<int>(m.batch.pairs.size());
    info.text = m.name;
    return info;
}

bool SimulationCore::Impl::op_HAS_PROPERTY(const std::string& name) {
    return settings.properties.count(name) > 0;
}

int SimulationCore::Impl::op_LOAD_COMPONENTS(const std::string& name) {
    if (!Store::valid_name(name))
        throw std::invalid_argument(fmt::format("bad persistence name '{}'", name));
    SavedScene saved;
    if (!store.load_scene(name, saved))
        throw std::out_of_range(fmt::format("no persistence named '{}'", name));
    install_saved(std::move(saved));
    return static_cast<int>(scene.size());
}

int SimulationCore::Impl::op_LOCK_PHYSIC() {
    return ++locks;
}

int SimulationCore::Impl::op_UNLOCK_PHYSIC() {
    if (locks > 0) --locks;
    return locks;
}

int SimulationCore::Impl::op_PAUSE_SIMULATION() {
    if (state == kStopped) throw Refusal(kInvalidState, "the simulation is not started");
    state = kPaused;
    return state;
}

int SimulationCore::Impl::op_RESUME_SIMULATION() {
    if (state == kStopped) throw Refusal(kInvalidState, "the simulation is not started");
    state = kRunning;
    wake.notify_all();
    return state;
}

int SimulationCore::Impl::op_START_SIMULATION() {
    state = kRunning;
    wake.notify_all();
    return state;
}

int SimulationCore::Impl::op_STOP_SIMULATION() {
    state = kStopped;
    wake.notify_all();
    autosave();
    return state;
}

int SimulationCore::Impl::op_QUIT() {
    state = kStopped;
    autosave();
    quit = true;
    wake.notify_all();
    quit_cv.notify_all();
    return 0;
}

int SimulationCore::Impl::op_REGISTER_COMPONENTS() {
    world->set_registered(true);
    return static_cast<int>(scene.size());
}

int SimulationCore::Impl::op_UNREGISTER_COMPONENTS() {
    world->set_registered(false);
    return static_cast<int>(scene.size());
}

int SimulationCore::Impl::op_SAVE_COMPONENTS(const std::string& name) {
    const auto current = current_scene();
    store.save_scene(name, current, meshes_used_by(current));
    return static_cast<int>(current.size());
}

int SimulationCore::Impl::op_SEND_SCENE(const mp::buffer& data) {
    return send_scene(data.data, data.size);
}

int SimulationCore::Impl::send_scene(const uint8_t* data, uint64_t size) {
    std::vector<Component> components;
    try {
        components = decode_scene(data, size);
    } catch (const std::exception& e) {
        throw std::invalid_argument(fmt::format("bad scene record: {}", e.what()));
    }
    install(std::move(components));
    return static_cast<int>(scene.size());
}

bool SimulationCore::Impl::op_SET_PERSISTENCE_MODE(const int& mode) {
    if (mode < 0 || mode > 2)
        throw std::invalid_argument(fmt::format("persistence mode {} is outside 0..2", mode));
    Settings next = settings;
    next.persistence_mode = mode;
    store.save_settings(next);
    settings = std::move(next);
    return true;
}

int SimulationCore::Impl::op_SET_PROPERTY(const std::string& name, const std::string& value) {
    if (name.empty()) throw std::invalid_argument("a property needs a name");
    Settings next = settings;
    const bool created = next.properties.count(name) == 0;
    next.properties[name] = value;
    store.save_settings(next);
    settings = std::move(next);
    return created ? 1 : 0;
}

int SimulationCore::Impl::op_SET_PUBLISH_COMPRESSION_LEVEL(const int& level) {
    if (level < 0 || level > 9)
        throw std::invalid_argument(fmt::format("compression level {} is outside 0..9", level));
    const int was = compression;
    compression = level;
    last_published.clear();
    return was;
}

int SimulationCore::Impl::op_SET_PUBLISH_PERIOD_MS(const double& ms) {
    const int was = static_cast<int>(std::lround(publish_period_ms));
    publish_period_ms = check_period(ms);
    wake.notify_all();
    return was;
}

int SimulationCore::Impl::op_SET_SERVER_PERIOD_MS(const double& ms) {
    const int was = static_cast<int>(std::lround(server_period_ms));
    server_period_ms = check_period(ms);
    wake.notify_all();
    return was;
}

int SimulationCore::Impl::op_SET_VERBOSE(const bool& on) {
    const bool was = verbose;
    verbose = on;
    log->set_level(on ? spdlog::level::debug : spdlog::level::info);
    return was ? 1 : 0;
}

// The table writes STEP_SIMULATION's answer straight into the result instead; this is the
// same answer as a value.
dt::integration_result_t SimulationCore::Impl::op_STEP_SIMULATION() {
    step_world();
    std::vector<uint8_t> bytes;
    write_result(bytes, true);
    mp::ReadBuffer in(bytes.data(), bytes.size());
    dt::integration_result_t r;
    dt::read(in, r);
    return r;
}

int SimulationCore::Impl::op_UPDATE_TRIMESH(const long long& id, const int& vertex_offset,
                                            const int& triangle_offset,
                                            const dt::mesh_batch_t& batch) {
    return meshes.update(id, vertex_offset, triangle_offset, batch);
}

}  // namespace qor::sim
