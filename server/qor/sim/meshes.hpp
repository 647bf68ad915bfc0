#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <dax/types/mesh.hpp>

namespace qor::sim {

/// One triangle mesh made with CREATE_TRIMESH and filled with UPDATE_TRIMESH.
struct Mesh {
    std::string name;
    dax::types::mesh_batch_t batch;  ///< vertices, index pairs (edges) and triangles
};

/// The server's triangle meshes by id (ids start at 1 and are never reused while the server runs).
class MeshStore {
  public:
    /// A new empty mesh with room reserved for the announced counts; returns its id.
    int64_t create(const std::string& name, int vertices, int triangles, int pairs);
    /// Writes `batch.vertices` from `vertex_offset` and `batch.triangles` from `triangle_offset`
    /// (growing the mesh; an offset beyond the current end is refused) and appends `batch.pairs`.
    /// Returns the mesh's vertex count afterwards.
    int update(int64_t id, int vertex_offset, int triangle_offset,
               const dax::types::mesh_batch_t& batch);
    /// The mesh with this id, or null.
    const Mesh* find(int64_t id) const;
    /// The mesh with this id; throws "no triangle mesh with id N".
    const Mesh& get(int64_t id) const;
    /// Stores a mesh under a given id (loading a saved scene); later ids stay above it.
    void put(int64_t id, Mesh mesh);
    /// Removes every mesh; returns how many there were.
    int clear();
    /// All meshes by id.
    const std::map<int64_t, Mesh>& all() const { return meshes_; }

  private:
    std::map<int64_t, Mesh> meshes_;
    int64_t next_id_ = 1;
};

/// Index of the first triangle corner that names a missing vertex, or -1 when all are valid.
int64_t first_bad_index(const dax::types::mesh_batch_t& batch);
/// Writes a mesh as Wavefront OBJ (vertices, faces, and pairs as line elements).
void write_obj(const std::string& path, const Mesh& mesh);

}  // namespace qor::sim
