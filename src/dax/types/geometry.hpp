#pragma once

// Small value records shared by the simulation and device records.

#include <vector>

#include <dax/types/record.hpp>

namespace dax::types {

/// Two single-precision values.
struct vec2f_t {
    float x = 0;
    float y = 0;
    DAX_RECORD_FIELDS(x, y)
};

/// Three single-precision values.
struct vec3f_t {
    float x = 0;
    float y = 0;
    float z = 0;
    DAX_RECORD_FIELDS(x, y, z)
};

/// Three double-precision values (mesh vertices).
struct vec3d_t {
    double x = 0;
    double y = 0;
    double z = 0;
    DAX_RECORD_FIELDS(x, y, z)
};

/// A rotation as four single-precision values.
struct quat4f_t {
    float q0 = 0;
    float q1 = 0;
    float q2 = 0;
    float q3 = 0;
    DAX_RECORD_FIELDS(q0, q1, q2, q3)
};

/// Position and rotation, scalar part first; defaults to the origin and the identity rotation.
struct pose7_t {
    float x = 0;
    float y = 0;
    float z = 0;
    float q0 = 1.0f;
    float q1 = 0;
    float q2 = 0;
    float q3 = 0;
    DAX_RECORD_FIELDS(x, y, z, q0, q1, q2, q3)
};

/// Six double-precision values.
struct vec6d_t {
    double d0 = 0;
    double d1 = 0;
    double d2 = 0;
    double d3 = 0;
    double d4 = 0;
    double d5 = 0;
    DAX_RECORD_FIELDS(d0, d1, d2, d3, d4, d5)
};

/// A list of integers, carried as a record of one field.
struct int_list_t {
    std::vector<int> values;
    DAX_RECORD_FIELDS(values)
};

/// A list of single-precision values, carried as a record of one field.
struct float_list_t {
    std::vector<float> values;
    DAX_RECORD_FIELDS(values)
};

/// A list of double-precision values, carried as a record of one field.
struct double_list_t {
    std::vector<double> values;
    DAX_RECORD_FIELDS(values)
};

}  // namespace dax::types
