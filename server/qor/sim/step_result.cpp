// A step's answer: every body's state written once as a map, in place where it is sent from,
// and the world's figures beside it.

#include <cstring>
#include <stdexcept>
#include <tuple>

#include <qor/sim/core_state.hpp>

namespace qor::sim {

namespace mp = serialization::msgpack;
namespace dt = dax::types;

void SimulationCore::Impl::write_states(std::vector<uint8_t>& out, bool every) {
    stats = world->snapshot(body_states);
    changed_states.clear();
    if (every || compression == 0) {
        for (const auto& [id, s] : body_states) changed_states.emplace_back(id, &s);
    } else {
        // Leaving out what did not change since the last publication is lossless: the client
        // keeps the last state it was given.
        uint8_t bytes[rigid_body::kBodyStateSize];
        for (const auto& [id, s] : body_states) {
            rigid_body::put_state(bytes, s);
            std::vector<uint8_t>& last = last_published[id];
            if (last.size() == sizeof bytes && std::memcmp(last.data(), bytes, sizeof bytes) == 0)
                continue;
            last.assign(bytes, bytes + sizeof bytes);
            changed_states.emplace_back(id, &s);
        }
    }
    // The map is written where it is sent from, so its bin header needs its exact length
    // first; `out` grows once for the entries and no body costs an allocation of its own.
    const size_t count = changed_states.size();
    const uint64_t map_header = count < 16 ? 1 : count <= 0xFFFF ? 3 : 5;
    uint64_t length = map_header + count * rigid_body::kBodyStateSize;
    uint8_t scratch[mp::integer_room];
    for (const auto& entry : changed_states)
        length += uint64_t(mp::put_integer(scratch, entry.first) - scratch);
    mp::pack_bin_header(out, length);
    mp::pack_map_header(out, count);
    const uint64_t at = mp::grow_tail(out, length - map_header);
    uint8_t* p = out.data() + at;
    for (const auto& [id, s] : changed_states)
        p = rigid_body::put_state(mp::put_integer(p, id), *s);
    if (p != out.data() + out.size()) throw std::logic_error("state map length miscounted");
}

dt::integration_result_t SimulationCore::Impl::result_figures() const {
    const Vec3 g = world->gravity();
    dt::integration_result_t r;
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

void SimulationCore::Impl::write_result(std::vector<uint8_t>& out, bool every) {
    // The record as dt::pack writes it, its state map written in place.
    mp::pack_array_header(out, dt::field_count_v<dt::integration_result_t>);
    write_states(out, every);
    const dt::integration_result_t r = result_figures();
    std::apply([&out](const mp::buffer&, const auto&... rest) { (dt::pack(out, rest), ...); },
               r.fields());
}

}  // namespace qor::sim
