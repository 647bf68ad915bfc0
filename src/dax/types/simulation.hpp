#pragma once

// The outcome of one simulation step: the result of a step call and the payload of every
// per-step state update.

#include <qor/serialization/msgpack/buffer.hpp>

#include <dax/types/geometry.hpp>
#include <dax/types/record.hpp>

namespace dax::types {

/// Nine further step values, in wire order. Their meaning is the server's; the reference
/// server fills them as noted.
struct step_details_t {
    int i1 = 0;    ///< number of bodies in the world
    float f2 = 0;  ///< simulated time since the scene was built, in seconds
    float f3 = 0;  ///< simulated time of one step, in seconds
    float f4 = 0;  ///< wall time the last step took, in milliseconds
    int i5 = 0;    ///< number of bodies awake (moving)
    float f6 = 0;  ///< linear kinetic energy of the bodies, in joules
    float f7 = 0;  ///< speed of the fastest body, in m/s
    int i8 = 0;    ///< number of contact points
    int i9 = 0;    ///< simulation state: 0 stopped, 1 running, 2 paused
    DAX_RECORD_FIELDS(i1, f2, f3, f4, i5, f6, f7, i8, i9)
};

/// One simulation step's outcome; `states` is a map from component id to that component's
/// own state encoding, travelling as one bin value.
struct integration_result_t {
    qor::serialization::msgpack::buffer states;  ///< map: component id -> its state encoding
    int value_int = 0;                           ///< steps since the scene was built
    vec3f_t vec_a;                               ///< gravity, m/s²
    vec3f_t vec_b;                               ///< centre of mass of the dynamic bodies
    step_details_t details;                      ///< further values of the step
    DAX_RECORD_FIELDS(states, value_int, vec_a, vec_b, details)
};

}  // namespace dax::types
