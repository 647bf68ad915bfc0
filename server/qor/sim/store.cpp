#include <qor/sim/store.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>
#include <signal.h>
#include <sys/types.h>

#include <dax/types/mesh.hpp>
#include <qor/sim/files.hpp>

namespace qor::sim {

namespace fs = std::filesystem;
namespace mp = serialization::msgpack;

namespace {

constexpr const char* kSceneExt = ".scene";
constexpr const char* kSceneMagic = "qor-scene";
constexpr const char* kSettingsFile = "settings.qor";
constexpr const char* kSettingsMagic = "qor-settings";
constexpr int kFormat = 1;

double now_seconds() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void expect_header(mp::ReadBuffer& in, uint64_t fields, const char* magic,
                   const std::string& path) {
    const uint64_t n = mp::read_array_header(in);
    std::string tag;
    mp::read(in, tag);
    int format = 0;
    mp::read(in, format);
    if (n != fields || tag != magic || format != kFormat)
        throw std::runtime_error(
            fmt::format("{} is not a version {} {} file", path, kFormat, magic));
}

}  // namespace

Store::Store(std::string folder) : folder_(std::move(folder)) {
    std::error_code ec;
    fs::create_directories(folder_, ec);
    if (ec || !fs::is_directory(folder_))
        throw std::runtime_error(fmt::format("cannot use data folder {}: {}", folder_,
                                             ec ? ec.message() : "not a folder"));
    remove_stale_temporaries();
}

void Store::remove_stale_temporaries() const {
    // A save killed between write and rename leaves NAME.tmp.PID behind. One whose process
    // is gone can never be renamed; one of a live process (another server sharing the
    // folder, saving now) is left alone.
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder_, ec)) {
        const std::string name = entry.path().filename().string();
        const size_t at = name.rfind(".tmp.");
        if (at == std::string::npos || at + 5 == name.size() ||
            name.find_first_not_of("0123456789", at + 5) != std::string::npos)
            continue;
        const long pid = std::strtol(name.c_str() + at + 5, nullptr, 10);
        if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            std::error_code ignored;
            fs::remove(entry.path(), ignored);
        }
    }
}

bool Store::valid_name(const std::string& name) {
    if (name.empty() || name.size() > 128 || name[0] == '.') return false;
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
        if (!ok) return false;
    }
    return true;
}

std::string Store::scene_path(const std::string& name) const {
    if (!valid_name(name))
        throw std::invalid_argument(fmt::format("bad persistence name '{}'", name));
    return folder_ + "/" + name + kSceneExt;
}

void Store::save_scene(const std::string& name, const std::vector<Component>& components,
                       const std::map<int64_t, Mesh>& meshes) {
    const std::string path = scene_path(name);
    std::vector<uint8_t> out;
    mp::pack_array_header(out, 5);
    mp::pack(out, kSceneMagic);
    mp::pack(out, kFormat);
    mp::pack(out, now_seconds());
    mp::pack(out, mp::buffer(encode_scene(components)));
    mp::pack_array_header(out, meshes.size());
    for (const auto& [id, mesh] : meshes) {
        mp::pack_array_header(out, 3);
        mp::pack(out, static_cast<long long>(id));
        mp::pack(out, mesh.name);
        dax::types::pack(out, mesh.batch);
    }
    write_file_atomically(path, out.data(), out.size());
}

bool Store::load_scene(const std::string& name, SavedScene& result) const {
    const std::string path = scene_path(name);
    if (!fs::exists(path)) return false;
    const std::vector<uint8_t> bytes = read_file(path);
    try {
        mp::ReadBuffer in(bytes.data(), bytes.size());
        expect_header(in, 5, kSceneMagic, path);
        SavedScene out;
        mp::read(in, out.saved_at);
        mp::buffer scene;
        mp::read(in, scene);
        out.components = decode_scene(scene.data, scene.size);
        const uint64_t count = mp::read_array_header(in);
        for (uint64_t i = 0; i < count; ++i) {
            if (mp::read_array_header(in) != 3) throw std::runtime_error("bad mesh entry");
            long long id = 0;
            Mesh mesh;
            mp::read(in, id);
            mp::read(in, mesh.name);
            dax::types::read(in, mesh.batch);
            out.meshes[id] = std::move(mesh);
        }
        result = std::move(out);
    } catch (const std::exception& e) {
        throw std::runtime_error(fmt::format("damaged scene file {}: {}", path, e.what()));
    }
    return true;
}

bool Store::remove_scene(const std::string& name) {
    std::error_code ec;
    const bool removed = fs::remove(scene_path(name), ec);
    if (ec)
        throw std::runtime_error(
            fmt::format("cannot remove {}: {}", scene_path(name), ec.message()));
    return removed;
}

int Store::remove_all_scenes() {
    int n = 0;
    for (const auto& [name, when] : list())
        if (remove_scene(name)) ++n;
    return n;
}

std::vector<std::pair<std::string, double>> Store::list() const {
    std::vector<std::pair<std::string, double>> out;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder_, ec)) {
        const fs::path p = entry.path();
        if (p.extension() != kSceneExt || !entry.is_regular_file()) continue;
        const std::string name = p.stem().string();
        if (!valid_name(name)) continue;
        // The save time is inside the file; a file that cannot be read is still listed (so it
        // can be cleared) with time 0.
        double when = 0;
        try {
            // The header (tag, format, time) sits in the first few bytes.
            std::ifstream file(p, std::ios::binary);
            std::vector<uint8_t> head(64);
            file.read(reinterpret_cast<char*>(head.data()),
                      static_cast<std::streamsize>(head.size()));
            head.resize(static_cast<size_t>(file.gcount()));
            mp::ReadBuffer in(head.data(), head.size());
            expect_header(in, 5, kSceneMagic, p.string());
            mp::read(in, when);
        } catch (const std::exception&) {
            when = 0;
        }
        out.emplace_back(name, when);
    }
    std::sort(out.begin(), out.end());
    return out;
}

Settings Store::load_settings() const {
    Settings s;
    const std::string path = folder_ + "/" + kSettingsFile;
    if (!fs::exists(path)) return s;
    const std::vector<uint8_t> bytes = read_file(path);
    try {
        mp::ReadBuffer in(bytes.data(), bytes.size());
        expect_header(in, 4, kSettingsMagic, path);
        mp::read(in, s.persistence_mode);
        mp::read(in, s.properties);
    } catch (const std::exception& e) {
        throw std::runtime_error(fmt::format("damaged settings file {}: {}", path, e.what()));
    }
    return s;
}

void Store::save_settings(const Settings& settings) {
    std::vector<uint8_t> out;
    mp::pack_array_header(out, 4);
    mp::pack(out, kSettingsMagic);
    mp::pack(out, kFormat);
    mp::pack(out, settings.persistence_mode);
    mp::pack(out, settings.properties);
    write_file_atomically(folder_ + "/" + kSettingsFile, out.data(), out.size());
}

}  // namespace qor::sim
