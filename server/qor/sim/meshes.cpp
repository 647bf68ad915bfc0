#include <qor/sim/meshes.hpp>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

#include <qor/sim/files.hpp>

namespace qor::sim {

int64_t MeshStore::create(const std::string& name, int vertices, int triangles, int pairs) {
    if (vertices < 0 || triangles < 0 || pairs < 0)
        throw std::invalid_argument("mesh sizes must not be negative");
    Mesh mesh;
    mesh.name = name;
    // The counts are hints from the client; cap the reservation so a wild number cannot
    // exhaust memory before any data arrives.
    constexpr int kMaxReserve = 1 << 16;
    mesh.batch.vertices.reserve(std::min(vertices, kMaxReserve));
    mesh.batch.triangles.reserve(std::min(triangles, kMaxReserve));
    mesh.batch.pairs.reserve(std::min(pairs, kMaxReserve));
    const int64_t id = next_id_++;
    meshes_.emplace(id, std::move(mesh));
    return id;
}

namespace {

template <class T>
void place(std::vector<T>& target, int offset, const std::vector<T>& items, const char* what) {
    if (offset < 0 || static_cast<uint64_t>(offset) > target.size())
        throw std::invalid_argument(
            fmt::format("{} offset {} is outside 0..{}", what, offset, target.size()));
    const size_t at = static_cast<size_t>(offset);
    if (target.size() < at + items.size()) target.resize(at + items.size());
    std::copy(items.begin(), items.end(), target.begin() + static_cast<std::ptrdiff_t>(at));
}

}  // namespace

int MeshStore::update(int64_t id, int vertex_offset, int triangle_offset,
                      const dax::types::mesh_batch_t& batch) {
    auto it = meshes_.find(id);
    if (it == meshes_.end())
        throw std::out_of_range(fmt::format("no triangle mesh with id {}", id));
    auto& target = it->second.batch;
    // Check both offsets before touching anything so a refused update changes nothing.
    if (vertex_offset < 0 || static_cast<uint64_t>(vertex_offset) > target.vertices.size() ||
        triangle_offset < 0 || static_cast<uint64_t>(triangle_offset) > target.triangles.size())
        throw std::invalid_argument(fmt::format(
            "offsets ({}, {}) are outside the mesh's {} vertices and {} triangles", vertex_offset,
            triangle_offset, target.vertices.size(), target.triangles.size()));
    // Corners must name vertices the mesh has once this batch is in: the physics and the OBJ
    // export cannot use any other.
    const uint64_t vertices = std::max<uint64_t>(
        target.vertices.size(), static_cast<uint64_t>(vertex_offset) + batch.vertices.size());
    for (size_t i = 0; i < batch.triangles.size(); ++i) {
        const auto& t = batch.triangles[i];
        for (uint32_t corner : {t.a, t.b, t.c})
            if (corner >= vertices)
                throw std::invalid_argument(
                    fmt::format("triangle {} names vertex {} of a mesh of {} vertices",
                                static_cast<uint64_t>(triangle_offset) + i, corner, vertices));
    }
    for (size_t i = 0; i < batch.pairs.size(); ++i) {
        for (uint32_t end : {batch.pairs[i].a, batch.pairs[i].b})
            if (end >= vertices)
                throw std::invalid_argument(
                    fmt::format("pair {} names vertex {} of a mesh of {} vertices",
                                target.pairs.size() + i, end, vertices));
    }
    place(target.vertices, vertex_offset, batch.vertices, "vertex");
    place(target.triangles, triangle_offset, batch.triangles, "triangle");
    target.pairs.insert(target.pairs.end(), batch.pairs.begin(), batch.pairs.end());
    return static_cast<int>(target.vertices.size());
}

const Mesh* MeshStore::find(int64_t id) const {
    auto it = meshes_.find(id);
    return it == meshes_.end() ? nullptr : &it->second;
}

const Mesh& MeshStore::get(int64_t id) const {
    const Mesh* mesh = find(id);
    if (!mesh) throw std::out_of_range(fmt::format("no triangle mesh with id {}", id));
    return *mesh;
}

void MeshStore::put(int64_t id, Mesh mesh) {
    meshes_[id] = std::move(mesh);
    next_id_ = std::max(next_id_, id + 1);
}

int MeshStore::clear() {
    const int n = static_cast<int>(meshes_.size());
    meshes_.clear();
    return n;
}

int64_t first_bad_index(const dax::types::mesh_batch_t& batch) {
    const uint64_t n = batch.vertices.size();
    for (size_t i = 0; i < batch.triangles.size(); ++i) {
        const auto& t = batch.triangles[i];
        if (t.a >= n || t.b >= n || t.c >= n) return static_cast<int64_t>(i);
    }
    return -1;
}

void write_obj(const std::string& path, const Mesh& mesh) {
    const uint64_t n = mesh.batch.vertices.size();
    fmt::memory_buffer out;
    fmt::format_to(std::back_inserter(out), "# {}\no {}\n", mesh.name.empty() ? "mesh" : mesh.name,
                   mesh.name.empty() ? "mesh" : mesh.name);
    for (const auto& v : mesh.batch.vertices)
        fmt::format_to(std::back_inserter(out), "v {} {} {}\n", v.x, v.y, v.z);
    // OBJ indices start at 1; corners naming a missing vertex would make the file unreadable.
    for (const auto& t : mesh.batch.triangles)
        if (t.a < n && t.b < n && t.c < n)
            fmt::format_to(std::back_inserter(out), "f {} {} {}\n", t.a + 1, t.b + 1, t.c + 1);
    for (const auto& p : mesh.batch.pairs)
        if (p.a < n && p.b < n)
            fmt::format_to(std::back_inserter(out), "l {} {}\n", p.a + 1, p.b + 1);
    write_file_atomically(path, out.data(), out.size());
}

}  // namespace qor::sim
