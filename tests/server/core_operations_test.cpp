// The simulation core's operations: argument checking, persistence, properties, errors.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace qor::sim::testing {
namespace {

namespace dt = dax::types;
using ::testing::HasSubstr;

/// Calls operation `name` with `count` arguments, encoded back to back as `args` (hex).
CallResult call_hex(SimulationCore& core, const std::string& name, const std::string& args,
                    uint64_t count) {
    const std::vector<uint8_t> bytes = test_support::hex(args);
    return core.call("qor.server.operation." + name, bytes.data(), bytes.size(), count);
}

std::vector<std::string> files_in(const TempFolder& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        names.push_back(entry.path().filename().string());
    return names;
}

using CoreArguments = CoreTest;
using CorePersistence = CoreTest;
using CoreMisc = CoreTest;

const std::string ZERO = "cb 0000000000000000 ";  // 0.0 as float 64

struct BadCall {
    std::string name;
    std::string args;  // hex
    uint64_t count;
    std::string text;
    std::string error = "wamp.error.invalid_argument";
};

TEST_F(CoreArguments, WrongCountOrTypeSaysWhichArgument) {
    ASSERT_EQ(call_ok<long long>(*core, "CREATE_TRIMESH", "m", 0, 0, 0), 1);
    const std::vector<BadCall> cases{
        {"CLEAR_SCENE", "01", 1, "CLEAR_SCENE takes 0 arguments, got 1"},
        {"SET_PROPERTY", "a1 61", 1, "SET_PROPERTY takes 2 arguments, got 1"},
        {"SET_PROPERTY", "05 a1 61", 2, "argument 1 of SET_PROPERTY must be a string"},
        {"SET_PROPERTY", "a1 61 c0", 2, "argument 2 of SET_PROPERTY must be a string"},
        {"ENABLE_SCHEDULING", "01", 1, "argument 1 of ENABLE_SCHEDULING must be a boolean"},
        {"SET_SERVER_PERIOD_MS", "a1 78", 1, "argument 1 of SET_SERVER_PERIOD_MS must be a number"},
        {"SET_SERVER_PERIOD_MS", "d0 fb", 1, "period -5 ms is outside 1..60000"},
        {"CREATE_TRIMESH", "a1 6d cf 00 00 01 00 00 00 00 00 01 01", 4,
         "argument 2 of CREATE_TRIMESH must be an integer: out of the 32-bit range"},
        {"GET_TRIMESH", "cb 00 00 00 00 00 00 00 00", 1,
         "argument 1 of GET_TRIMESH must be an integer"},
        {"SEND_SCENE", "a2 68 69", 1, "argument 1 of SEND_SCENE must be binary data"},
        {"SEND_SCENE", "c4 05 90", 1, "unexpected end of data"},
        {"SET_PROPERTY", "a1 61", 2,
         "argument 2 of SET_PROPERTY must be a string: unexpected end of data"},
        {"GET_PROPERTY", "a1 61 01", 1, "trailing bytes after the arguments"},
        {"UPDATE_TRIMESH", "01 00 00 93 91 92 " + ZERO + ZERO + "90 90", 4,
         "2 fields in message, 3 in struct"},
        {"CLEAR_BODIES_PERSISTENCES", "a1 73 91 01 c2", 3,
         "argument 2 of CLEAR_BODIES_PERSISTENCES must be a list of strings"},
        {"SET_PUBLISH_COMPRESSION_LEVEL", "0a", 1, "compression level 10 is outside 0..9"},
        {"SAVE_COMPONENTS", "a5 2e 2e 2f 65 74", 1, "bad persistence name '../et'"},
        {"LOAD_COMPONENTS", "a0", 1, "bad persistence name ''"},
        {"NO_SUCH_THING", "", 0, "no procedure 'qor.server.operation.NO_SUCH_THING'",
         "wamp.error.no_such_procedure"},
        {"LOAD_COMPONENTS", "a4 6e 6f 6e 65", 1, "no persistence named 'none'",
         "qor.error.not_found"},
        {"GET_PROPERTY", "a4 6e 6f 6e 65", 1, "no property named 'none'", "qor.error.not_found"},
        {"RESUME_SIMULATION", "", 0, "not started", "qor.error.invalid_state"},
        // Mesh 1 exists and has no vertices yet; the batch brings one.
        {"UPDATE_TRIMESH", "01 00 00 93 91 93 " + ZERO + ZERO + ZERO + "90 91 93 00 01 00", 4,
         "triangle 0 names vertex 1 of a mesh of 1 vertices"},
        {"UPDATE_TRIMESH", "01 00 00 93 90 91 92 00 05 90", 4,
         "pair 0 names vertex 0 of a mesh of 0 vertices"},
        {"SET_PERSISTENCE_MODE", "f9", 1, "persistence mode -7 is outside 0..2"},
        {"SEND_SCENE", "c4 06 91 94 a0 01 00 c0", 1, "scene element 0 has an empty type"},
        {"DUMP_MESHES_TO_OBJ", "a4 2f 74 6d 70", 1, "folder '/tmp' is outside the data folder"},
        {"DUMP_MESHES_TO_OBJ", "a7 61 2f 2e 2e 2f 2e 2e", 1,
         "folder 'a/../..' is outside the data folder"},
    };
    for (const BadCall& c : cases) {
        SCOPED_TRACE(c.name + " -> " + c.text);
        const CallResult r = call_hex(*core, c.name, c.args, c.count);
        EXPECT_FALSE(r.ok);
        EXPECT_TRUE(r.value.empty());
        EXPECT_EQ(r.error, c.error);
        EXPECT_THAT(r.message, HasSubstr(c.text));
    }
    EXPECT_EQ(core->call("other.procedure").error, "wamp.error.no_such_procedure");

    // Every failure is kept for GET_LAST_ERRORS, oldest first, until cleared.
    const auto errors = call_ok<dt::vector_string_t>(*core, "GET_LAST_ERRORS", true);
    ASSERT_EQ(errors.values.size(), cases.size() + 1);
    EXPECT_THAT(errors.values.front(), HasSubstr("CLEAR_SCENE takes 0 arguments"));
    EXPECT_TRUE(call_ok<dt::vector_string_t>(*core, "GET_LAST_ERRORS", false).values.empty());
}

TEST_F(CoreArguments, NumbersAndIntegersAreAcceptedInEveryEncoding) {
    // An integer where a number is expected is taken as that number (peers in other
    // languages send 16 rather than 16.0).
    EXPECT_EQ(call_ok<int>(*core, "SET_SERVER_PERIOD_MS", 16), 17);
    EXPECT_EQ(call_ok<int>(*core, "SET_SERVER_PERIOD_MS", 20.0), 16);
    const CallResult r = call_hex(*core, "SET_PUBLISH_PERIOD_MS", "ca 41a00000", 1);  // 20.0f
    EXPECT_TRUE(r.ok) << r.message;
    call_ok<long long>(*core, "CREATE_TRIMESH", "m", 0, 0, 0);
    // Id 1 in a wider form than needed.
    EXPECT_TRUE(call_hex(*core, "GET_TRIMESH_INFO", "cc 01", 1).ok);
    // UPDATE_TRIMESH(1, 0, 0, [[[0,0,0],[1,0,0],[0,1,0]], [], [[0,1,2]]]): whole coordinates.
    const CallResult mesh =
        call_hex(*core, "UPDATE_TRIMESH",
                 "01 00 00 93 93 93 00 00 00 93 01 00 00 93 00 01 00 90 91 93 00 01 02", 4);
    EXPECT_TRUE(mesh.ok) << mesh.message;
    const auto batch = call_ok<dt::mesh_batch_t>(*core, "GET_TRIMESH", 1LL);
    ASSERT_EQ(batch.vertices.size(), 3u);
    EXPECT_EQ(batch.vertices[1].x, 1.0);
    EXPECT_EQ(batch.triangles.size(), 1u);
    // So are a Body's numbers, as another implementation writes a ball at height 5.
    const std::vector<uint8_t> scene = test_support::hex(
        "91 94 A4 426F6479 02 05 99 A6 737068657265 93 CB 3FE0000000000000 00 00 00 01 "
        "97 00 00 05 01 00 00 00 93 00 00 00 93 00 00 00 CB 3FE0000000000000 00");
    EXPECT_EQ(call_ok<int>(*core, "SEND_SCENE", mp::buffer(scene)), 1);
    EXPECT_LT(states_of(step()).at(2).pose.position.z, 5.0);
}

TEST(CoreFiles, MeshDumpStaysInARelativeDataFolderWithoutDoublingIt) {
    TempFolder folder;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    {
        CoreOptions options;
        options.data_dir = "simdata";
        SimulationCore core(options);
        call_ok<long long>(core, "CREATE_TRIMESH", "m", 0, 0, 0);
        EXPECT_EQ(call_ok<int>(core, "DUMP_MESHES_TO_OBJ", ""), 1);
        EXPECT_EQ(call_ok<int>(core, "DUMP_MESHES_TO_OBJ", "out/../objs"), 1);
    }
    std::filesystem::current_path(previous);
    EXPECT_TRUE(std::filesystem::exists(folder.path() / "simdata/meshes/mesh_1_m.obj"));
    EXPECT_TRUE(std::filesystem::exists(folder.path() / "simdata/objs/mesh_1_m.obj"));
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "simdata/simdata"));
}

TEST_F(CorePersistence, SavedScenesSettingsAndModeSurviveANewCore) {
    const long long mesh = call_ok<long long>(*core, "CREATE_TRIMESH", "tri", 3, 1, 0);
    const dt::mesh_batch_t triangle{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {}, {{0, 1, 2}}};
    call_ok<int>(*core, "UPDATE_TRIMESH", mesh, 0, 0, triangle);
    call_ok<int>(
        *core, "SEND_SCENE",
        scene_of({ground(1), ball(2, 4.0), body(3, Shape::mesh, {1, 1, 1}, 0, {5, 5, 0}, mesh)}));
    step(10);
    EXPECT_EQ(call_ok<int>(*core, "SAVE_COMPONENTS", "first"), 3);
    EXPECT_EQ(call_ok<int>(*core, "SAVE_COMPONENTS", "second"), 3);
    const mp::buffer saved_scene = call_ok<mp::buffer>(*core, "GET_SERVER_SCENE");
    EXPECT_EQ(call_ok<int>(*core, "SET_PROPERTY", "owner", "lab 3"), 1);
    EXPECT_EQ(call_ok<int>(*core, "SET_PROPERTY", "owner", "lab 4"), 0);
    EXPECT_EQ(run(*core, "SET_PERSISTENCE_MODE", 7).error, "wamp.error.invalid_argument");
    EXPECT_TRUE(call_ok<bool>(*core, "SET_PERSISTENCE_MODE", 1));
    core.reset();
    // Every file was written through a temporary and renamed: none is left behind.
    EXPECT_THAT(files_in(folder), ::testing::Each(::testing::Not(HasSubstr(".tmp"))));

    core = core_in(folder);
    EXPECT_EQ(call_ok<int>(*core, "GET_PERSISTENCE_MODE"), 1);
    EXPECT_EQ(call_ok<std::string>(*core, "GET_PROPERTY", "owner"), "lab 4");
    EXPECT_TRUE(call_ok<bool>(*core, "HAS_PROPERTY", "owner"));
    EXPECT_FALSE(call_ok<bool>(*core, "HAS_PROPERTY", "nobody"));

    const auto list = call_ok<dt::vector_pair_string_double_t>(*core, "BROWSE_PERSISTENCES");
    ASSERT_EQ(list.values.size(), 2u);
    EXPECT_EQ(list.values[0].first, "first");
    EXPECT_EQ(list.values[1].first, "second");
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_NEAR(list.values[0].second, now, 60.0) << "save times are Unix seconds";

    // The new core has no meshes of its own: loading brings back the mesh the scene uses.
    EXPECT_EQ(call_ok<int>(*core, "LOAD_COMPONENTS", "first"), 3);
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"), saved_scene);
    EXPECT_EQ(call_ok<dt::mesh_info_t>(*core, "GET_TRIMESH_INFO", 1LL).text, "tri");
    EXPECT_EQ(call_ok<long long>(*core, "CREATE_TRIMESH", "next", 0, 0, 0), 2)
        << "new meshes do not reuse a loaded id";

    const auto removed = call_ok<dt::vector_bool_t>(*core, "CLEAR_BODIES_PERSISTENCES", "first",
                                                    dt::vector_string_t{{"2", "99"}}, true);
    EXPECT_EQ(removed.values, (std::vector<bool>{true, false}));
    EXPECT_EQ(call_ok<int>(*core, "LOAD_COMPONENTS", "first"), 2);
    EXPECT_EQ(
        run(*core, "CLEAR_BODIES_PERSISTENCES", "first", dt::vector_string_t{{"x2"}}, false).error,
        "wamp.error.invalid_argument");

    EXPECT_TRUE(call_ok<bool>(*core, "CLEAR_SCENE_PERSISTENCES", "first", false));
    EXPECT_FALSE(call_ok<bool>(*core, "CLEAR_SCENE_PERSISTENCES", "first", false));
    EXPECT_TRUE(call_ok<bool>(*core, "CLEAR_PERSISTENCES"));
    EXPECT_FALSE(call_ok<bool>(*core, "CLEAR_PERSISTENCES"));
    EXPECT_TRUE(
        call_ok<dt::vector_pair_string_double_t>(*core, "BROWSE_PERSISTENCES").values.empty());
}

TEST_F(CorePersistence, TemporariesOfDeadSavesAreRemovedAtStart) {
    // A process that has ended: its pid names no live process (until reused, far later).
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    ::waitpid(child, nullptr, 0);
    const std::string dead = std::to_string(child), alive = std::to_string(::getpid());
    const std::vector<std::string> names = {"kept.scene", "kept.scene.tmp." + dead,
                                            "settings.qor.tmp." + dead, "other.scene.tmp." + alive,
                                            "notes.tmp.x1"};
    core.reset();
    for (const std::string& name : names) std::ofstream(folder.path() / name) << "x";
    core = core_in(folder);
    EXPECT_THAT(files_in(folder), ::testing::UnorderedElementsAre(
                                      "kept.scene", "other.scene.tmp." + alive, "notes.tmp.x1"));
}

TEST_F(CorePersistence, ModeTwoRestoresTheSceneOfTheLastRun) {
    EXPECT_TRUE(call_ok<bool>(*core, "SET_PERSISTENCE_MODE", 2));
    call_ok<int>(*core, "SEND_SCENE", scene_of({ground(1), ball(2, 4.0)}));
    step();
    const mp::buffer before = call_ok<mp::buffer>(*core, "GET_SERVER_SCENE");
    EXPECT_EQ(call_ok<int>(*core, "QUIT"), 0);
    EXPECT_TRUE(core->quit_requested());
    core->wait_for_quit();  // returns at once once QUIT went through
    core.reset();
    core = core_in(folder);
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"), before);
}

TEST_F(CorePersistence, DamagedSceneFileIsReportedNotFatal) {
    std::ofstream(folder.path() / "broken.scene", std::ios::binary) << "\x95\xa9qor-scene";
    const CallResult r = run(*core, "LOAD_COMPONENTS", "broken");
    EXPECT_EQ(r.error, "qor.error.operation_failed");
    EXPECT_THAT(r.message, HasSubstr("damaged scene file"));
    // Still listed, so that it can be cleared.
    const auto list = call_ok<dt::vector_pair_string_double_t>(*core, "BROWSE_PERSISTENCES");
    ASSERT_EQ(list.values.size(), 1u);
    EXPECT_EQ(list.values[0].second, 0.0);
}

TEST_F(CoreMisc, AuthenticateVerboseBuildAndLabels) {
    EXPECT_EQ(call_ok<std::string>(*core, "AUTHENTICATE", "anything"), "anonymous");
    auto guarded = core_in(folder, "s3cret");
    EXPECT_EQ(call_ok<std::string>(*guarded, "AUTHENTICATE", "s3cret"), "authenticated");
    EXPECT_EQ(run(*guarded, "AUTHENTICATE", "guess").error, "qor.error.not_authorized");
    EXPECT_EQ(call_ok<int>(*core, "SET_VERBOSE", true), 0);
    EXPECT_EQ(call_ok<int>(*core, "SET_VERBOSE", false), 1);
    EXPECT_FALSE(call_ok<std::string>(*core, "GET_SERVER_BUILD_NUMBER").empty());
    EXPECT_THAT(call_ok<std::string>(*core, "GET_LOGS_LABELS"), HasSubstr("physics"));
    call_ok<int>(*core, "SEND_SCENE", scene_of({ground(1), ball(2, 1)}));
    EXPECT_EQ(call_ok<int>(*core, "DUMP"), 2);
    EXPECT_EQ(SimulationCore::procedures().size(), 43u);
}

// try_call answers the quick operations as call does and declines the rest, running nothing;
// a failure is left to call, which keeps it for GET_LAST_ERRORS once.
TEST_F(CoreMisc, TryCallRunsOnlyQuickOperationsAndLeavesFailuresToCall) {
    const auto try_run = [&](const std::string& name, const std::vector<uint8_t>& args,
                             uint64_t count, CallResult& r) {
        return core->try_call("qor.server.operation." + name, args.data(), args.size(), count, r);
    };
    std::vector<uint8_t> period;
    mp::pack(period, 20.0);
    CallResult r;
    ASSERT_TRUE(try_run("SET_SERVER_PERIOD_MS", period, 1, r));
    EXPECT_EQ(value_of<int>(r), 17) << "the period it replaced";
    EXPECT_EQ(call_ok<int>(*core, "SET_SERVER_PERIOD_MS", 5.0), 20) << "the one it set";

    const std::tuple<const char*, std::vector<uint8_t>, uint64_t> declined[] = {
        {"SEND_SCENE", {0xc4, 0x01, 0x90}, 1},                           // builds a world
        {"SET_PROPERTY", {0xa1, 'a', 0xa1, 'b'}, 2},                     // writes a file
        {"GET_PROPERTY", {0xa7, 'm', 'i', 's', 's', 'i', 'n', 'g'}, 1},  // fails
        {"GET_PERSISTENCE_MODE", {0x01}, 1},                             // wrong argument count
        {"NO_SUCH_OPERATION", {}, 0},
    };
    for (const auto& [name, args, count] : declined) {
        CallResult out;
        EXPECT_FALSE(try_run(name, args, count, out)) << name;
        EXPECT_FALSE(out.ok) << name;
        EXPECT_TRUE(out.value.empty() && out.error.empty()) << name;
    }
    EXPECT_FALSE(call_ok<bool>(*core, "HAS_PROPERTY", "a"));
    EXPECT_TRUE(call_ok<dt::vector_string_t>(*core, "GET_LAST_ERRORS", false).values.empty());
    EXPECT_EQ(call_ok<int>(*core, "GET_PERSISTENCE_MODE"), 0);
}

}  // namespace
}  // namespace qor::sim::testing
