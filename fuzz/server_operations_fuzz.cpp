// The reference server's operations through the core's call entry, with arbitrary argument
// lists. One input is a run of calls on a fresh core (so a mesh can be created, then updated,
// then fetched), each call written as
//   [operation byte] [argument count byte] [argument bytes length, 2 bytes big-endian] [bytes]
// An answer must be an error with a URI, or exactly one MessagePack value. Making a core per
// input costs a Bullet world and a clock thread (about 20 inputs a second), so one core serves
// every input and is brought back to an empty, stopped scene before each.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/sim/core.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace fs = std::filesystem;

// Every operation, by index in sorted order. DUMP_MESHES_TO_OBJ keeps to the data folder, so
// it runs too.
const std::vector<std::string>& operations() {
    static const std::vector<std::string> names = qor::sim::SimulationCore::procedures();
    return names;
}

// A folder of its own, removed when the program ends.
struct DataFolder {
    fs::path path;
    DataFolder() {
        // Saves are flushed to disk; a memory-backed folder keeps that from setting the pace.
        char pattern[] = "/dev/shm/qor-fuzz-server-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        if (made == nullptr) std::abort();
        path = made;
    }
    ~DataFolder() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

const fs::path& data_folder() {
    static const DataFolder folder;
    return folder.path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static qor::sim::SimulationCore core([] {
        qor::sim::CoreOptions options;
        options.data_dir = (data_folder() / "data").string();
        return options;
    }());
    for (const char* reset : {"STOP_SIMULATION", "UNLOCK_PHYSIC", "CLEAR_SCENE", "CLEAR_TRIMESHES",
                              "CLEAR_PERSISTENCES"})
        core.call(std::string("qor.server.operation.") + reset);

    size_t at = 0;
    while (at + 4 <= size) {
        const std::string& procedure = operations()[data[at] % operations().size()];
        const uint64_t count = data[at + 1] % 8;
        size_t length = size_t(data[at + 2]) << 8 | data[at + 3];
        at += 4;
        if (length > size - at) length = size - at;
        const qor::sim::CallResult result = core.call(procedure, data + at, length, count);
        at += length;
        if (result.ok) {
            mp::ReadBuffer value(result.value.data(), result.value.size());
            if (result.value.empty() || mp::skip(value) != result.value.size()) __builtin_trap();
        } else if (result.error.empty()) {
            __builtin_trap();
        }
    }
    return 0;
}
