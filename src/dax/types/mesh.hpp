#pragma once

// Triangle-mesh records: the batch sent and fetched by the mesh operations, and its summary.

#include <cstdint>
#include <string>
#include <vector>

#include <dax/types/geometry.hpp>
#include <dax/types/record.hpp>

namespace dax::types {

/// Two vertex indices; always written as five-byte uint 32 values.
struct index_pair_t {
    uint32_t a = 0;
    uint32_t b = 0;
    DAX_RECORD_FIELDS(a, b)
};

/// Three vertex indices; always written as five-byte uint 32 values.
struct index_triple_t {
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    DAX_RECORD_FIELDS(a, b, c)
};

/// A batch of mesh data: vertices, index pairs and triangles.
struct mesh_batch_t {
    std::vector<vec3d_t> vertices;
    std::vector<index_pair_t> pairs;
    std::vector<index_triple_t> triangles;
    DAX_RECORD_FIELDS(vertices, pairs, triangles)
};

/// Summary of a mesh: three server-defined integers and a text (GET_TRIMESH_INFO).
struct mesh_info_t {
    int value_1 = 0;   ///< number of vertices
    int value_2 = 0;   ///< number of triangles
    int value_3 = 0;   ///< number of index pairs (edges)
    std::string text;  ///< the name given to CREATE_TRIMESH
    DAX_RECORD_FIELDS(value_1, value_2, value_3, text)
};

}  // namespace dax::types
