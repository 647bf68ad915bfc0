#pragma once

// The outcome of one simulation step: the result of a step call and the payload of every
// per-step state update.

#include <qor/serialization/msgpack/buffer.hpp>

#include <dax/types/geometry.hpp>
#include <dax/types/record.hpp>

namespace dax::types {

/// Nine further step values, in wire order.
struct step_details_t {
    int i1 = 0;
    float f2 = 0;
    float f3 = 0;
    float f4 = 0;
    int i5 = 0;
    float f6 = 0;
    float f7 = 0;
    int i8 = 0;
    int i9 = 0;
    DAX_RECORD_FIELDS(i1, f2, f3, f4, i5, f6, f7, i8, i9)
};

/// One simulation step's outcome; `states` is a map from component id to that component's
/// own state encoding, travelling as one bin value.
struct integration_result_t {
    qor::serialization::msgpack::buffer states;
    int value_int = 0;
    vec3f_t vec_a;
    vec3f_t vec_b;
    step_details_t details;
    DAX_RECORD_FIELDS(states, value_int, vec_a, vec_b, details)
};

}  // namespace dax::types
