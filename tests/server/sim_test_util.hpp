#pragma once

// Helpers shared by the server tests: encoding arguments, decoding results, scenes and
// temporary data folders.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <dax/types/mesh.hpp>
#include <dax/types/persistence.hpp>
#include <dax/types/simulation.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/scene.hpp>

#include "support/testing.hpp"

namespace qor::sim::testing {

namespace mp = serialization::msgpack;

using test_support::TempFolder;

template <class T>
void pack_arg(std::vector<uint8_t>& out, const T& v) {
    if constexpr (dax::types::is_record_v<T>) {
        dax::types::pack(out, v);
    } else if constexpr (std::is_array_v<T>) {
        mp::pack(out, static_cast<const char*>(v));  // a string literal
    } else {
        mp::pack(out, v);
    }
}

/// Calls "qor.server.operation.NAME" with the given arguments, each packed as one value.
template <class... A>
CallResult run(SimulationCore& core, const std::string& name, const A&... args) {
    std::vector<uint8_t> bytes;
    (pack_arg(bytes, args), ...);
    return core.call("qor.server.operation." + name, bytes.data(), bytes.size(), sizeof...(A));
}

/// The decoded value of a successful call; fails the test on an error.
template <class T>
T value_of(const CallResult& r) {
    EXPECT_TRUE(r.ok) << r.error << ": " << r.message;
    T out{};
    if (!r.ok) return out;
    mp::ReadBuffer in(r.value.data(), r.value.size());
    if constexpr (dax::types::is_record_v<T>) {
        dax::types::read(in, out);
    } else {
        mp::read(in, out);
    }
    EXPECT_EQ(in.remaining(), 0u) << "result holds more than one value";
    return out;
}

/// Runs an operation that must succeed and returns its value.
template <class T, class... A>
T call_ok(SimulationCore& core, const std::string& name, const A&... args) {
    return value_of<T>(run(core, name, args...));
}

inline Component ground(int64_t id) {
    Component c{kGroundType, id, 0, {}};
    encode(c.data, GroundData{});
    return c;
}

inline Component body(int64_t id, Shape shape, Vec3 size, double mass, Vec3 at,
                      int64_t mesh_id = 0) {
    BodyData b;
    b.shape = shape;
    b.size = size;
    b.mass = mass;
    b.mesh_id = mesh_id;
    b.pose.position = at;
    Component c{kBodyType, id, 7, {}};
    encode(c.data, b);
    return c;
}

inline Component ball(int64_t id, double z) {
    return body(id, Shape::sphere, {0.5, 0, 0}, 1.0, {0, 0, z});
}

inline mp::buffer scene_of(const std::vector<Component>& components) {
    return mp::buffer(encode_scene(components));
}

/// The state map of a step result, decoded.
inline std::map<int64_t, BodyState> states_of(const dax::types::integration_result_t& r) {
    std::map<int64_t, BodyState> out;
    mp::ReadBuffer in(r.states);
    const uint64_t n = mp::read_map_header(in);
    for (uint64_t i = 0; i < n; ++i) {
        long long id = 0;
        mp::read(in, id);
        out[id] = read_state(in);
    }
    EXPECT_EQ(in.remaining(), 0u);
    return out;
}

/// Waits up to `limit` for `done` to become true, checking every few milliseconds.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

}  // namespace qor::sim::testing
