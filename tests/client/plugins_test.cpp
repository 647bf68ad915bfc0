// Plug-in discovery and loading: the folder helpers, the handler on its own, and whole client
// constructions run as separate programs from folders holding chosen plug-ins.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <dax/plugins/folders.hpp>
#include <dax/plugins/plugin_handler.hpp>

#include "support/testing.hpp"

namespace client_test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A scratch folder that plug-ins and stand-in files are put into.
class ScratchFolder : public test_support::TempFolder {
  public:
    /// Creates a file with some text in it (not a loadable library).
    void touch(const std::string& name) const { std::ofstream(path() / name) << "not a library"; }
    /// Copies a built test plug-in in under another file name.
    void add_plugin(const std::string& built, const std::string& as) const {
        fs::path from = fs::path(CLIENT_TEST_PLUGIN_DIR) / built;
        if (!fs::exists(from)) from = fs::path(CLIENT_TEST_RUN_DIR) / built;
        fs::copy_file(from, path() / as);
    }
};

std::string slurp(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ProbeRun {
    int status;
    std::string out;
    std::string err;
};

/// Copies the probe program into `folder` and runs it there.
ProbeRun run_probe(const ScratchFolder& folder, const std::string& args = "--stderr-logger") {
    const fs::path probe = folder.path() / "client_probe";
    fs::copy_file(CLIENT_TEST_PROBE, probe, fs::copy_options::overwrite_existing);
    const std::string command = "'" + probe.string() + "' " + args + " > '" +
                                (folder.path() / "out.txt").string() + "' 2> '" +
                                (folder.path() / "err.txt").string() + "'";
    ProbeRun run;
    run.status = std::system(command.c_str());
    run.out = slurp(folder.path() / "out.txt");
    run.err = slurp(folder.path() / "err.txt");
    return run;
}

const std::string kStart = "Create the client \n[Client] Search plugins: \n";

// ---- folder helpers ----------------------------------------------------------------------

TEST(PluginFolders, PlatformNamingAndExecutableFolder) {
    EXPECT_EQ(dax::plugins::get_lib_prefix(), "lib");
    EXPECT_EQ(dax::plugins::get_lib_ext(), ".so");
    EXPECT_EQ(dax::plugins::get_executable_folder(), fs::canonical(CLIENT_TEST_RUN_DIR).string());
}

TEST(PluginFolders, ListsOnlyMatchingLibrariesWithoutPrefixAndExtension) {
    ScratchFolder dir;
    for (const char* name : {"libqor_b_sdk_cpp.so", "libqor_sdk_cpp.so", "libqor_a_sdk_cpp.so",
                             "libqor_c_sdk_cpp.so.1", "libqor_d_sdk_cpp.txt", "libother_sdk_cpp.so",
                             "qor_e_sdk_cpp.so", "libqor_f_sdk_cpp_x.so", "libQOR_g_sdk_cpp.so"}) {
        dir.touch(name);
    }
    fs::create_directory(dir.path() / "libqor_dir_sdk_cpp.so");  // a folder is no library
    EXPECT_EQ(dax::plugins::get_plugins(dir.path().string(), "qor_", "sdk_cpp"),
              (std::vector<std::string>{"qor_a_sdk_cpp", "qor_b_sdk_cpp", "qor_sdk_cpp"}));
}

TEST(PluginFolders, PrefixAndSuffixMayNotShareCharacters) {
    ScratchFolder dir;
    dir.touch("libabc.so");
    dir.touch("libabbc.so");
    EXPECT_EQ(dax::plugins::get_plugins(dir.path().string(), "ab", "bc"),
              std::vector<std::string>{"abbc"});
}

TEST(PluginFolders, MissingOrEmptyFolderHoldsNothing) {
    ScratchFolder dir;
    EXPECT_THAT(dax::plugins::get_plugins(dir.path().string(), "qor_", "sdk_cpp"), IsEmpty());
    EXPECT_THAT(dax::plugins::get_plugins((dir.path() / "absent").string(), "qor_", "sdk_cpp"),
                IsEmpty());
}

// ---- the handler on its own ----------------------------------------------------------------

/// Registers "logger" writing bare lines into a string for the test's duration.
class CapturedLogger {
  public:
    CapturedLogger() {
        spdlog::drop("logger");
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(text_);
        logger_ = std::make_shared<spdlog::logger>("logger", sink);
        logger_->set_pattern("%l|%v");
        spdlog::register_logger(logger_);
    }
    ~CapturedLogger() { spdlog::drop("logger"); }
    std::string lines() const { return text_.str(); }

  private:
    std::ostringstream text_;
    std::shared_ptr<spdlog::logger> logger_;
};

using Handler = dax::plugins::PluginHandler<dax::client::IModuleFactory>;

TEST(PluginHandler, ReportsEachFailureNamingTheFileOnly) {
    CapturedLogger log;
    ScratchFolder dir;
    dir.touch("libqor_broken_sdk_cpp.so");
    dir.add_plugin("libqor_test_noinit_sdk_cpp.so", "libqor_noinit_sdk_cpp.so");
    dir.add_plugin("libqor_test_noname_sdk_cpp.so", "libqor_noname_sdk_cpp.so");
    const std::string folder = dir.path().string();
    Handler handler;
    std::string name = "stale";

    EXPECT_FALSE(handler.load(folder, "qor_missing_sdk_cpp", name));
    EXPECT_EQ(log.lines(), "error|[Server] Could not find plugin libqor_missing_sdk_cpp.so\n");

    EXPECT_FALSE(handler.load(folder, "qor_broken_sdk_cpp", name));
    EXPECT_THAT(log.lines(),
                HasSubstr("error|[Server] Failed to load plugin libqor_broken_sdk_cpp.so: "
                          "error code "));
    EXPECT_EQ(handler.loaded_count(), 0u);

    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(handler.load(folder, "qor_noname_sdk_cpp", name));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Failed initializing libqor_noname_sdk_cpp.so: unknown plugin name\n");
    EXPECT_EQ(name, "");
    EXPECT_EQ(handler.loaded_count(), 1u);  // stays loaded until the end

    EXPECT_FALSE(handler.load(folder, "qor_noinit_sdk_cpp", name));
    EXPECT_THAT(
        log.lines(),
        HasSubstr("error|[Server] Failed initializing plugin : libqor_noinit_sdk_cpp.so\n"));
    EXPECT_EQ(name, "twin");  // the name from "GetName" is kept
    EXPECT_EQ(handler.loaded_count(), 2u);
    EXPECT_TRUE(handler.factory_table().table().empty());

    handler.unload();
    EXPECT_EQ(handler.loaded_count(), 0u);
}

TEST(PluginHandler, GoodPluginRegistersItsCreatorUntilUnloaded) {
    ScratchFolder dir;
    dir.add_plugin("libqor_test_good_sdk_cpp.so", "libqor_good_sdk_cpp.so");
    dir.add_plugin("libqor_test_throw_sdk_cpp.so", "libqor_throw_sdk_cpp.so");
    Handler handler;
    std::string name;
    ASSERT_TRUE(handler.load(dir.path().string(), "qor_good_sdk_cpp", name));
    EXPECT_EQ(name, "test_good");
    auto creator = handler.factory_table().find("test_good");
    ASSERT_NE(creator, nullptr);
    {
        std::unique_ptr<dax::client::PluginModule> module(creator());
        std::vector<dax::client::IModuleFactory*> factories;
        module->registerFactories(&factories);
        EXPECT_EQ(module->info(), "Body and Counter");
        ASSERT_EQ(factories.size(), 2u);
        for (auto* factory : factories) delete factory;
    }

    // An exception thrown by an export passes through; the library stays held.
    EXPECT_THROW(
        {
            try {
                handler.load(dir.path().string(), "qor_throw_sdk_cpp", name);
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "test plugin refuses to load");
                throw;
            }
        },
        std::runtime_error);
    EXPECT_EQ(handler.loaded_count(), 2u);

    handler.unload();
    EXPECT_EQ(handler.loaded_count(), 0u);
    EXPECT_EQ(handler.factory_table().find("test_good"), nullptr);
}

// ---- whole constructions, each in a folder of its own ----------------------------------------

TEST(ClientConstruction, FolderWithOnlyTheSdkPrintsTheTwoLinesAndSubscribes) {
    ScratchFolder dir;
    dir.touch("libqor_sdk_cpp.so");  // skipped by name: loading it would have failed loudly
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kStart +
                           "probe: factories=0 bindings=29 timeout=1000 version=-1\n"
                           "[Client] Cleanup\n"
                           "probe: peer bindings=0 pending=29\n");
    EXPECT_EQ(run.err, "");
}

TEST(ClientConstruction, OnlyTheExactOwnNameIsSkipped) {
    ScratchFolder dir;
    dir.touch("libqor_sdk_cpp.so");
    dir.touch("libqor_xsdk_cpp.so");
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.err,
                HasSubstr("[Server] Failed to load plugin libqor_xsdk_cpp.so: error code "));
    EXPECT_THAT(run.err, ::testing::Not(HasSubstr("libqor_sdk_cpp.so")));
    EXPECT_THAT(run.out, HasSubstr("probe: factories=0 bindings=29 timeout=1000 version=-1\n"));
}

TEST(ClientConstruction, GoodPluginIsAnnouncedAndItsFactoriesUsed) {
    ScratchFolder dir;
    dir.touch("libqor_sdk_cpp.so");
    dir.add_plugin("libqor_test_good_sdk_cpp.so", "libqor_good_sdk_cpp.so");
    const ProbeRun run = run_probe(dir, "--stderr-logger --create Counter");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kStart +
                           "[Client] * Loaded plugin test_good (Body and Counter)\n"
                           "probe: factories=2 bindings=29 timeout=1000 version=-1\n"
                           "probe: created Counter id=0\n"
                           "[Client] Cleanup\n"
                           "probe: peer bindings=0 pending=29\n");
    EXPECT_EQ(run.err, "");
}

TEST(ClientConstruction, ThrowingPluginStopsTheSearchAndTheSubscriptions) {
    ScratchFolder dir;
    dir.add_plugin("libqor_test_throw_sdk_cpp.so", "libqor_1throw_sdk_cpp.so");
    dir.add_plugin("libqor_test_good_sdk_cpp.so", "libqor_2good_sdk_cpp.so");
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "[Client] * Failed to load plugin " + dir.path().string() +
                           "/qor_1throw_sdk_cpp: test plugin refuses to load\n");
    // The defaults hold from the start, so the early return leaves them in place.
    EXPECT_EQ(run.out, kStart +
                           "probe: factories=0 bindings=0 timeout=1000 version=-1\n"
                           "[Client] Cleanup\n"
                           "probe: peer bindings=0 pending=0\n");
}

TEST(ClientConstruction, NamelessPluginIsReportedAndTheSearchGoesOn) {
    ScratchFolder dir;
    dir.add_plugin("libqor_test_noname_sdk_cpp.so", "libqor_1noname_sdk_cpp.so");
    dir.add_plugin("libqor_test_good_sdk_cpp.so", "libqor_2good_sdk_cpp.so");
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "Failed initializing libqor_1noname_sdk_cpp.so: unknown plugin name\n");
    EXPECT_THAT(run.out, HasSubstr("[Client] * Loaded plugin test_good (Body and Counter)\n"));
    EXPECT_THAT(run.out, HasSubstr("factories=2 bindings=29"));
}

TEST(ClientConstruction, PluginsSharingANameUseWhateverTheTableHoldsAtEachLoad) {
    ScratchFolder dir;
    dir.add_plugin("libqor_test_twin_a_sdk_cpp.so", "libqor_1twin_sdk_cpp.so");
    dir.add_plugin("libqor_test_noinit_sdk_cpp.so", "libqor_2twin_sdk_cpp.so");
    dir.add_plugin("libqor_test_twin_b_sdk_cpp.so", "libqor_3twin_sdk_cpp.so");
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    // The second library has no "PluginInit", yet its name finds the first one's function.
    EXPECT_EQ(run.out, kStart +
                           "[Client] * Loaded plugin twin (first twin)\n"
                           "[Client] * Loaded plugin twin (first twin)\n"
                           "[Client] * Loaded plugin twin (second twin)\n"
                           "probe: factories=0 bindings=29 timeout=1000 version=-1\n"
                           "[Client] Cleanup\n"
                           "probe: peer bindings=0 pending=29\n");
    EXPECT_EQ(run.err, "[Server] Failed initializing plugin : libqor_2twin_sdk_cpp.so\n");
}

TEST(ClientConstruction, ThrowFromRegisterFactoriesReleasesWhatWasGathered) {
    ScratchFolder dir;
    dir.add_plugin("libqor_test_throw_register_sdk_cpp.so", "libqor_bad_sdk_cpp.so");
    const ProbeRun run = run_probe(dir);
    EXPECT_EQ(run.status, 0);
    // Not the plug-in search's own failure: the exception leaves the constructor, and the
    // factory appended before it is deleted while its library is still loaded.
    EXPECT_EQ(run.out, kStart +
                           "plugin: factory released\n"
                           "probe: construction failed: test plugin cannot register\n"
                           "probe: peer bindings=0 pending=0\n");
    EXPECT_EQ(run.err, "");
}

TEST(ClientConstruction, FailureWithoutAnApplicationLoggerStillGetsReported) {
    ScratchFolder dir;
    dir.touch("libqor_broken_sdk_cpp.so");
    const ProbeRun run = run_probe(dir, "");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, HasSubstr("[Server] Failed to load plugin libqor_broken_sdk_cpp.so"));
    EXPECT_THAT(run.out, HasSubstr("probe: factories=0 bindings=29"));
}

}  // namespace
}  // namespace client_test
