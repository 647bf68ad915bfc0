// Codec throughput on three workloads, each measured three ways on the same bytes: our codec,
// msgpack-cxx (its packer over a reused sbuffer; unpack then walk the object tree into the
// same targets), and memcpy of the encoded byte count. After the usual table a summary prints
// the ratios and the targets they are held to.
//
//   mesh   a mesh_batch_t of 1,000,000 vertices and 2,000,000 triangles (about 60 MB)
//   state  a map of 10,000 entries, int64 id -> [7 x float64]
//   ints   1,000,000 integers spread over every width of the integer rule

#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>

namespace qm = qor::serialization::msgpack;

namespace {

// ---- data ------------------------------------------------------------------------------------

struct state_entry {
    long id = 0;
    std::array<double, 7> values{};
};

struct Data {
    dax::types::mesh_batch_t mesh;
    std::vector<state_entry> states;
    std::vector<long> ints;
    std::vector<uint8_t> mesh_bytes, state_bytes, int_bytes;     // our encodings, for reading
    std::vector<uint8_t> mesh_theirs, state_theirs, int_theirs;  // msgpack-cxx's encodings
};

// Non-integral coordinates: msgpack-cxx writes integral doubles as integers, and the
// comparison is only fair when both sides produce the same bytes.
double coordinate(std::mt19937_64& random) {
    return (double(random() % 2000000) - 1000000.0) / 1024.0 + 1.0 / 4096.0;
}

long mixed_integer(std::mt19937_64& random) {
    static const int widths[] = {4, 7, 8, 16, 31, 32, 48, 63};
    const int bits = widths[random() % 8];
    const long magnitude = long(random() >> (64 - bits));
    return random() % 3 == 0 ? -magnitude - 1 : magnitude;
}

// ---- our side -----------------------------------------------------------------------------------

// One growth for the widest entries, one cut back at the end.
void pack_states(std::vector<uint8_t>& out, const std::vector<state_entry>& states) {
    qm::pack_map_header(out, states.size());
    constexpr uint64_t widest = qm::integer_room + qm::float64_record_size(7);
    const uint64_t at = qm::grow_tail(out, states.size() * widest);
    uint8_t* p = out.data() + at;
    for (const auto& s : states) {
        const auto& v = s.values;
        p = qm::put_float64_record(qm::put_integer(p, s.id), v[0], v[1], v[2], v[3], v[4], v[5],
                                   v[6]);
    }
    out.resize(uint64_t(p - out.data()));
}

void read_states(qm::ReadBuffer& in, std::vector<state_entry>& states) {
    states.resize(qm::read_map_header(in));
    for (auto& s : states) {
        qm::read(in, s.id);
        auto& v = s.values;
        if (qm::read_float64_record(in, v[0], v[1], v[2], v[3], v[4], v[5], v[6])) continue;
        // Any other form (float 32 values, a wrong count) goes through the general readers.
        const uint64_t count = qm::read_array_header(in);
        if (count != 7) qm::throw_struct_count(count, 7);
        for (double& d : v) qm::read(in, d);
    }
}

// ---- msgpack-cxx side -------------------------------------------------------------------------

using their_packer = msgpack::packer<msgpack::sbuffer>;

void their_pack_mesh(their_packer& pk, const dax::types::mesh_batch_t& mesh) {
    pk.pack_array(3);
    pk.pack_array(uint32_t(mesh.vertices.size()));
    for (const auto& v : mesh.vertices) {
        pk.pack_array(3);
        pk.pack_double(v.x);
        pk.pack_double(v.y);
        pk.pack_double(v.z);
    }
    pk.pack_array(uint32_t(mesh.pairs.size()));
    for (const auto& p : mesh.pairs) {
        pk.pack_array(2);
        pk.pack_fix_uint32(p.a);
        pk.pack_fix_uint32(p.b);
    }
    pk.pack_array(uint32_t(mesh.triangles.size()));
    for (const auto& t : mesh.triangles) {
        pk.pack_array(3);
        pk.pack_fix_uint32(t.a);
        pk.pack_fix_uint32(t.b);
        pk.pack_fix_uint32(t.c);
    }
}

void their_pack_states(their_packer& pk, const std::vector<state_entry>& states) {
    pk.pack_map(uint32_t(states.size()));
    for (const auto& s : states) {
        pk.pack_int64(s.id);
        pk.pack_array(7);
        for (double d : s.values) pk.pack_double(d);
    }
}

void their_pack_ints(their_packer& pk, const std::vector<long>& ints) {
    pk.pack_array(uint32_t(ints.size()));
    for (long v : ints) pk.pack_int64(v);
}

const msgpack::object& element(const msgpack::object& array, uint32_t i) {
    return array.via.array.ptr[i];
}

void their_read_mesh(const std::vector<uint8_t>& bytes, dax::types::mesh_batch_t& mesh) {
    const auto handle = msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const msgpack::object& root = handle.get();
    const msgpack::object& vertices = element(root, 0);
    mesh.vertices.resize(vertices.via.array.size);
    for (uint32_t i = 0; i < vertices.via.array.size; ++i) {
        const msgpack::object& v = element(vertices, i);
        element(v, 0).convert(mesh.vertices[i].x);
        element(v, 1).convert(mesh.vertices[i].y);
        element(v, 2).convert(mesh.vertices[i].z);
    }
    const msgpack::object& pairs = element(root, 1);
    mesh.pairs.resize(pairs.via.array.size);
    for (uint32_t i = 0; i < pairs.via.array.size; ++i) {
        element(element(pairs, i), 0).convert(mesh.pairs[i].a);
        element(element(pairs, i), 1).convert(mesh.pairs[i].b);
    }
    const msgpack::object& triangles = element(root, 2);
    mesh.triangles.resize(triangles.via.array.size);
    for (uint32_t i = 0; i < triangles.via.array.size; ++i) {
        const msgpack::object& t = element(triangles, i);
        element(t, 0).convert(mesh.triangles[i].a);
        element(t, 1).convert(mesh.triangles[i].b);
        element(t, 2).convert(mesh.triangles[i].c);
    }
}

void their_read_states(const std::vector<uint8_t>& bytes, std::vector<state_entry>& states) {
    const auto handle = msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const msgpack::object_map& map = handle.get().via.map;
    states.resize(map.size);
    for (uint32_t i = 0; i < map.size; ++i) {
        map.ptr[i].key.convert(states[i].id);
        const msgpack::object& values = map.ptr[i].val;
        for (uint32_t k = 0; k < 7; ++k) element(values, k).convert(states[i].values[k]);
    }
}

void their_read_ints(const std::vector<uint8_t>& bytes, std::vector<long>& ints) {
    const auto handle = msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const msgpack::object& array = handle.get();
    ints.resize(array.via.array.size);
    for (uint32_t i = 0; i < array.via.array.size; ++i) element(array, i).convert(ints[i]);
}

template <class F>
std::vector<uint8_t> their_bytes(F&& pack) {
    msgpack::sbuffer sbuf;
    their_packer pk(sbuf);
    pack(pk);
    return std::vector<uint8_t>(sbuf.data(), sbuf.data() + sbuf.size());
}

const Data& data() {
    static const Data d = [] {
        Data d;
        std::mt19937_64 random(42);
        d.mesh.vertices.resize(1000000);
        for (auto& v : d.mesh.vertices)
            v = {coordinate(random), coordinate(random), coordinate(random)};
        d.mesh.triangles.resize(2000000);
        for (auto& t : d.mesh.triangles)
            t = {uint32_t(random() % 1000000), uint32_t(random() % 1000000),
                 uint32_t(random() % 1000000)};
        d.states.resize(10000);
        for (auto& s : d.states) {
            s.id = long(random() >> 11);  // WAMP-sized ids: up to 2^53
            for (double& v : s.values) v = coordinate(random);
        }
        d.ints.resize(1000000);
        for (long& v : d.ints) v = mixed_integer(random);

        dax::types::pack(d.mesh_bytes, d.mesh);
        pack_states(d.state_bytes, d.states);
        qm::pack(d.int_bytes, d.ints);
        d.mesh_theirs = their_bytes([&](their_packer& pk) { their_pack_mesh(pk, d.mesh); });
        d.state_theirs = their_bytes([&](their_packer& pk) { their_pack_states(pk, d.states); });
        d.int_theirs = their_bytes([&](their_packer& pk) { their_pack_ints(pk, d.ints); });
        // The mesh and state encodings must be byte for byte the same for the comparison to
        // hold; the integers differ only at the two narrow negative bounds.
        if (d.mesh_bytes != d.mesh_theirs || d.state_bytes != d.state_theirs)
            throw std::logic_error("msgpack-cxx and our codec wrote different bytes");
        return d;
    }();
    return d;
}

void set_counters(benchmark::State& state, uint64_t bytes, uint64_t items) {
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
    state.SetItemsProcessed(int64_t(state.iterations() * items));
}

uint64_t mesh_items() {
    return data().mesh.vertices.size() + data().mesh.triangles.size();
}

// ---- benchmarks ---------------------------------------------------------------------------------

template <class Pack>
void ours_pack(benchmark::State& state, Pack pack, uint64_t items) {
    std::vector<uint8_t> out;
    for (auto _ : state) {
        out.clear();  // capacity kept, as the SDK's owners do with their scratch vectors
        pack(out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    set_counters(state, out.size(), items);
}

template <class Pack>
void their_pack(benchmark::State& state, Pack pack, uint64_t items) {
    msgpack::sbuffer sbuf;
    for (auto _ : state) {
        sbuf.clear();
        their_packer pk(sbuf);
        pack(pk);
        benchmark::DoNotOptimize(sbuf.data());
        benchmark::ClobberMemory();
    }
    set_counters(state, sbuf.size(), items);
}

void copy_bytes(benchmark::State& state, const std::vector<uint8_t>& bytes, uint64_t items) {
    std::vector<uint8_t> out(bytes.size());
    for (auto _ : state) {
        std::memcpy(out.data(), bytes.data(), bytes.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    set_counters(state, bytes.size(), items);
}

template <class T, class Read>
void ours_read(benchmark::State& state, const std::vector<uint8_t>& bytes, Read read,
               uint64_t items) {
    T target;
    for (auto _ : state) {
        qm::ReadBuffer in(bytes.data(), bytes.size());
        read(in, target);
        benchmark::DoNotOptimize(&target);
        benchmark::ClobberMemory();
    }
    set_counters(state, bytes.size(), items);
}

template <class T, class Read>
void their_read(benchmark::State& state, const std::vector<uint8_t>& bytes, Read read,
                uint64_t items) {
    T target;
    for (auto _ : state) {
        read(bytes, target);
        benchmark::DoNotOptimize(&target);
        benchmark::ClobberMemory();
    }
    set_counters(state, bytes.size(), items);
}

void mesh_pack_ours(benchmark::State& s) {
    ours_pack(
        s, [](std::vector<uint8_t>& out) { dax::types::pack(out, data().mesh); }, mesh_items());
}
void mesh_pack_theirs(benchmark::State& s) {
    their_pack(
        s, [](their_packer& pk) { their_pack_mesh(pk, data().mesh); }, mesh_items());
}
void mesh_pack_memcpy(benchmark::State& s) {
    copy_bytes(s, data().mesh_bytes, mesh_items());
}
void mesh_read_ours(benchmark::State& s) {
    ours_read<dax::types::mesh_batch_t>(
        s, data().mesh_bytes, [](qm::ReadBuffer& in, auto& m) { read(in, m); }, mesh_items());
}
void mesh_read_theirs(benchmark::State& s) {
    their_read<dax::types::mesh_batch_t>(s, data().mesh_theirs, their_read_mesh, mesh_items());
}
void mesh_read_memcpy(benchmark::State& s) {
    copy_bytes(s, data().mesh_bytes, mesh_items());
}

void state_pack_ours(benchmark::State& s) {
    ours_pack(
        s, [](std::vector<uint8_t>& out) { pack_states(out, data().states); }, 10000);
}
void state_pack_theirs(benchmark::State& s) {
    their_pack(
        s, [](their_packer& pk) { their_pack_states(pk, data().states); }, 10000);
}
void state_pack_memcpy(benchmark::State& s) {
    copy_bytes(s, data().state_bytes, 10000);
}
void state_read_ours(benchmark::State& s) {
    ours_read<std::vector<state_entry>>(s, data().state_bytes, read_states, 10000);
}
void state_read_theirs(benchmark::State& s) {
    their_read<std::vector<state_entry>>(s, data().state_theirs, their_read_states, 10000);
}
void state_read_memcpy(benchmark::State& s) {
    copy_bytes(s, data().state_bytes, 10000);
}

void ints_pack_ours(benchmark::State& s) {
    ours_pack(
        s, [](std::vector<uint8_t>& out) { qm::pack(out, data().ints); }, 1000000);
}
void ints_pack_theirs(benchmark::State& s) {
    their_pack(
        s, [](their_packer& pk) { their_pack_ints(pk, data().ints); }, 1000000);
}
void ints_pack_memcpy(benchmark::State& s) {
    copy_bytes(s, data().int_bytes, 1000000);
}
void ints_read_ours(benchmark::State& s) {
    ours_read<std::vector<long>>(
        s, data().int_bytes, [](qm::ReadBuffer& in, std::vector<long>& v) { qm::read(in, v); },
        1000000);
}
void ints_read_theirs(benchmark::State& s) {
    their_read<std::vector<long>>(s, data().int_theirs, their_read_ints, 1000000);
}
void ints_read_memcpy(benchmark::State& s) {
    copy_bytes(s, data().int_bytes, 1000000);
}

// ---- summary ------------------------------------------------------------------------------------

// Keeps every run and, once all have finished, prints one line per workload and direction:
// time per item, our bandwidth as a share of memcpy's, and our speed-up over msgpack-cxx.
class SummaryReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            const auto items = run.counters.find("items_per_second");
            ns_per_item_[run.benchmark_name()] =
                items == run.counters.end() ? 0.0 : 1e9 / items->second.value;
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        struct Target {
            const char* name;
            const char* item;
            const char* goal;
        };
        const Target targets[] = {
            {"mesh/pack", "record", ">= 50 % of memcpy (stretch 75 %)"},
            {"mesh/read", "record", ">= 50 % of memcpy (stretch 75 %)"},
            {"state/pack", "entry", "<= 10 ns/entry, >= 3x msgpack-cxx"},
            {"state/read", "entry", "<= 10 ns/entry, >= 3x msgpack-cxx"},
            {"ints/pack", "value", "<= 10 ns/value"},
            {"ints/read", "value", "<= 12 ns/value"},
        };
        std::printf("\n%-11s %12s %14s %12s %10s %12s   %s\n", "workload", "ours ns/item",
                    "msgpack-cxx ns", "memcpy ns", "% memcpy", "x msgpack", "target");
        for (const Target& t : targets) {
            const std::string base = t.name;
            const double ours = find(base + "/ours");
            const double theirs = find(base + "/msgpack-cxx");
            const double copy = find(base + "/memcpy");
            if (ours <= 0) continue;
            std::printf("%-11s %12.2f %14.2f %12.2f %9.1f%% %11.2fx   %s (per %s)\n", t.name, ours,
                        theirs, copy, copy > 0 ? 100.0 * copy / ours : 0.0,
                        theirs > 0 ? theirs / ours : 0.0, t.goal, t.item);
        }
        print_rows();
    }

  private:
    // The rows of bench/compare: the mesh as a share of memcpy's bandwidth over the same bytes,
    // the state map in absolute time per entry (memcpy shown beside it as the floor).
    void print_rows() const {
        struct Row {
            const char* key;
            const char* name;
            const char* label;
            bool ratio;  // value = memcpy time / our time; otherwise our ns per entry
            const char* target;
        };
        const Row rows[] = {
            {"mesh.pack", "mesh/pack", "mesh batch pack (1M vertices, 2M triangles)", true,
             ">=0.50"},
            {"mesh.read", "mesh/read", "mesh batch read (1M vertices, 2M triangles)", true,
             ">=0.50"},
            {"state.pack", "state/pack", "state map pack, 10k entries (ns/entry)", false, "<=10"},
            {"state.read", "state/read", "state map read, 10k entries (ns/entry)", false, "<=10"},
        };
        const double mesh_ms = 1e-6 * double(mesh_items());
        for (const Row& r : rows) {
            const std::string base = r.name;
            const double ours = find(base + "/ours");
            const double copy = find(base + "/memcpy");
            if (ours <= 0 || copy <= 0) continue;
            if (r.ratio)
                std::printf("@row\t%s\t%s\t%.2f ms\tmemcpy %.2f ms\t%.3f\t%s\n", r.key, r.label,
                            ours * mesh_ms, copy * mesh_ms, copy / ours, r.target);
            else
                std::printf("@row\t%s\t%s\t%.2f ns/entry\tmemcpy %.2f ns/entry\t%.2f\t%s\n",
                            r.key, r.label, ours, copy, ours, r.target);
        }
    }

    double find(const std::string& name) const {
        const auto it = ns_per_item_.find(name);
        return it == ns_per_item_.end() ? 0.0 : it->second;
    }
    std::map<std::string, double> ns_per_item_;
};

void register_all() {
    struct Entry {
        const char* name;
        void (*fn)(benchmark::State&);
    };
    const Entry entries[] = {
        {"mesh/pack/ours", mesh_pack_ours},
        {"mesh/pack/msgpack-cxx", mesh_pack_theirs},
        {"mesh/pack/memcpy", mesh_pack_memcpy},
        {"mesh/read/ours", mesh_read_ours},
        {"mesh/read/msgpack-cxx", mesh_read_theirs},
        {"mesh/read/memcpy", mesh_read_memcpy},
        {"state/pack/ours", state_pack_ours},
        {"state/pack/msgpack-cxx", state_pack_theirs},
        {"state/pack/memcpy", state_pack_memcpy},
        {"state/read/ours", state_read_ours},
        {"state/read/msgpack-cxx", state_read_theirs},
        {"state/read/memcpy", state_read_memcpy},
        {"ints/pack/ours", ints_pack_ours},
        {"ints/pack/msgpack-cxx", ints_pack_theirs},
        {"ints/pack/memcpy", ints_pack_memcpy},
        {"ints/read/ours", ints_read_ours},
        {"ints/read/msgpack-cxx", ints_read_theirs},
        {"ints/read/memcpy", ints_read_memcpy},
    };
    for (const Entry& e : entries)
        benchmark::RegisterBenchmark(e.name, e.fn)->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    data();  // build the inputs (and check the encodings agree) before any timing
    register_all();
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
