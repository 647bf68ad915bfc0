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

// How this platform names libraries and reports a file that is no library; quoting for the
// command interpreter that runs the probe.
#ifdef _WIN32
const std::string kLibPrefix = "", kLibExt = ".dll";
const std::string kNotALibraryCode = "error code 193";  // ERROR_BAD_EXE_FORMAT
const char kQuote = '"';
// cmd.exe drops the first and the last quote of its command line: give it an outer pair.
const std::string kOuterQuote = "\"";
#else
const std::string kLibPrefix = "lib", kLibExt = ".so";
const std::string kNotALibraryCode = "error code ";  // dlerror's text follows
const char kQuote = '\'';
const std::string kOuterQuote;
#endif

/// The file name of library `name` on this platform.
std::string lib(const std::string& name) {
    return kLibPrefix + name + kLibExt;
}

std::string quoted(const fs::path& path) {
    return kQuote + path.string() + kQuote;
}

/// A scratch folder that plug-ins and stand-in files are put into.
class ScratchFolder : public test_support::TempFolder {
  public:
    /// Creates a file with some text in it (not a loadable library).
    void touch(const std::string& name) const { std::ofstream(path() / name) << "not a library"; }
    /// Copies the SDK's own library in under its plain name. On Windows a program loads the
    /// DLLs beside it first, so this must be the real library, not a stand-in.
    void add_sdk() const { fs::copy_file(CLIENT_TEST_SDK_LIBRARY, path() / lib("qor_sdk_cpp")); }
    /// Copies a built test plug-in in under another file name.
    void add_plugin(const std::string& built, const std::string& as) const {
        fs::path from = fs::path(CLIENT_TEST_PLUGIN_DIR) / built;
        if (!fs::exists(from)) from = fs::path(CLIENT_TEST_RUN_DIR) / built;
        fs::copy_file(from, path() / as);
    }
};

const std::string kStart = "Create the client \n[Client] Search plugins: \n";

// ---- folder helpers ----------------------------------------------------------------------

TEST(PluginFolders, ListsOnlyMatchingLibrariesWithoutPrefixAndExtension) {
    ScratchFolder dir;
    for (const std::string& name :
         {lib("qor_b_sdk_cpp"), lib("qor_sdk_cpp"), lib("qor_a_sdk_cpp"),
          lib("qor_c_sdk_cpp") + ".1", lib("qor_d_sdk_cpp") + ".txt", lib("other_sdk_cpp"),
          "x" + lib("qor_e_sdk_cpp"), lib("qor_f_sdk_cpp_x"), lib("QOR_g_sdk_cpp")}) {
        dir.touch(name);
    }
    fs::create_directory(dir.path() / lib("qor_dir_sdk_cpp"));  // a folder is no library
    EXPECT_EQ(dax::plugins::get_plugins(dir.path().string(), "qor_", "sdk_cpp"),
              (std::vector<std::string>{"qor_a_sdk_cpp", "qor_b_sdk_cpp", "qor_sdk_cpp"}));
    // Prefix and suffix may not share characters.
    for (const char* name : {"abc", "abbc"}) dir.touch(lib(name));
    EXPECT_EQ(dax::plugins::get_plugins(dir.str(), "ab", "bc"), std::vector<std::string>{"abbc"});
    EXPECT_THAT(dax::plugins::get_plugins(dir.str(), "none_", "sdk_cpp"), IsEmpty());
    EXPECT_THAT(dax::plugins::get_plugins(dir.str() + "/absent", "qor_", "sdk_cpp"), IsEmpty());
}

// ---- the handler on its own ----------------------------------------------------------------

using Handler = dax::plugins::PluginHandler<dax::client::IModuleFactory>;

TEST(PluginHandler, ReportsEachFailureNamingTheFileOnly) {
    // The handler reports through the logger named "logger".
    test_support::CapturedLog log(spdlog::level::trace, "logger");
    spdlog::drop("logger");
    spdlog::register_logger(log.logger);
    ScratchFolder dir;
    dir.touch(lib("qor_broken_sdk_cpp"));
    dir.add_plugin(lib("qor_test_noinit_sdk_cpp"), lib("qor_noinit_sdk_cpp"));
    dir.add_plugin(lib("qor_test_noname_sdk_cpp"), lib("qor_noname_sdk_cpp"));
    const std::string folder = dir.path().string();
    Handler handler;
    std::string name = "stale";

    EXPECT_FALSE(handler.load(folder, "qor_missing_sdk_cpp", name));
    EXPECT_EQ(log.text(),
              "error [Server] Could not find plugin " + lib("qor_missing_sdk_cpp") + "\n");

    EXPECT_FALSE(handler.load(folder, "qor_broken_sdk_cpp", name));
    EXPECT_THAT(log.text(), HasSubstr("error [Server] Failed to load plugin " +
                                      lib("qor_broken_sdk_cpp") + ": " + kNotALibraryCode));
    EXPECT_EQ(handler.loaded_count(), 0u);

    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(handler.load(folder, "qor_noname_sdk_cpp", name));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Failed initializing " + lib("qor_noname_sdk_cpp") + ": unknown plugin name\n");
    EXPECT_EQ(name, "");
    EXPECT_EQ(handler.loaded_count(), 1u);  // stays loaded until the end

    EXPECT_FALSE(handler.load(folder, "qor_noinit_sdk_cpp", name));
    EXPECT_THAT(log.text(), HasSubstr("error [Server] Failed initializing plugin : " +
                                      lib("qor_noinit_sdk_cpp") + "\n"));
    EXPECT_EQ(name, "twin");  // the name from "GetName" is kept
    EXPECT_EQ(handler.loaded_count(), 2u);
    EXPECT_TRUE(handler.factory_table().table().empty());

    handler.unload();
    EXPECT_EQ(handler.loaded_count(), 0u);
    spdlog::drop("logger");
}

TEST(PluginHandler, GoodPluginRegistersItsCreatorUntilUnloaded) {
    ScratchFolder dir;
    dir.add_plugin(lib("qor_test_good_sdk_cpp"), lib("qor_good_sdk_cpp"));
    dir.add_plugin(lib("qor_test_throw_sdk_cpp"), lib("qor_throw_sdk_cpp"));
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
    EXPECT_EQ(test_support::error_of(
                  [&] { handler.load(dir.path().string(), "qor_throw_sdk_cpp", name); }),
              "test plugin refuses to load");
    EXPECT_EQ(handler.loaded_count(), 2u);

    handler.unload();
    EXPECT_EQ(handler.loaded_count(), 0u);
    EXPECT_EQ(handler.factory_table().find("test_good"), nullptr);
}

// ---- whole constructions, each in a folder of its own ----------------------------------------

// Each row runs the probe in a folder of its own holding the files it names, separated by blanks:
// plug-ins ("built>as", names without the platform's prefix and extension), files that are no
// library ("!name") and "sdk", the SDK's own library. `out` and `err` are the whole output, or a
// part of it when the row says so. "{dir}" stands for the folder.
TEST(ClientConstruction, EachFolderGivesItsOutputAndSubscriptions) {
    enum Match { whole, out_part, both_parts };
    struct Row {
        const char* name;
        const char* files;
        std::string args, out, err;
        Match match;
    };
    const std::string plain = "probe: factories=0 bindings=29 timeout=1000 version=-1\n";
    const std::string ended = "[Client] Cleanup\nprobe: peer bindings=0 pending=29\n";
    const std::string logger = "--stderr-logger";
    const Row rows[] = {
        // The SDK itself is skipped by its exact name only: as a plug-in it would be reported.
        {"only the exact own name is skipped", "sdk !qor_xsdk_cpp", logger, plain,
         "[Server] Failed to load plugin " + lib("qor_xsdk_cpp") + ": " + kNotALibraryCode,
         both_parts},
        // The defaults hold from the start, so the early return leaves them in place.
        {"a throwing plug-in stops the search and the subscriptions",
         "qor_test_throw_sdk_cpp>qor_1throw_sdk_cpp qor_test_good_sdk_cpp>qor_2good_sdk_cpp",
         logger,
         kStart + "probe: factories=0 bindings=0 timeout=1000 version=-1\n" +
             "[Client] Cleanup\nprobe: peer bindings=0 pending=0\n",
         "[Client] * Failed to load plugin {dir}/qor_1throw_sdk_cpp: test plugin refuses to load\n",
         whole},
        // The second library has no "PluginInit", yet its name finds the first one's function.
        {"plug-ins sharing a name use whatever the table holds at each load",
         "qor_test_twin_a_sdk_cpp>qor_1twin_sdk_cpp qor_test_noinit_sdk_cpp>qor_2twin_sdk_cpp "
         "qor_test_twin_b_sdk_cpp>qor_3twin_sdk_cpp",
         logger,
         kStart + "[Client] * Loaded plugin twin (first twin)\n" +
             "[Client] * Loaded plugin twin (first twin)\n" +
             "[Client] * Loaded plugin twin (second twin)\n" + plain + ended,
         "[Server] Failed initializing plugin : " + lib("qor_2twin_sdk_cpp") + "\n", whole},
        // Not the search's own failure: the exception leaves the constructor, and the factory
        // appended before it is deleted while its library is still loaded.
        {"a throw from registerFactories releases what was gathered",
         "qor_test_throw_register_sdk_cpp>qor_bad_sdk_cpp", logger,
         kStart + "plugin: factory released\n" +
             "probe: construction failed: test plugin cannot register\n" +
             "probe: peer bindings=0 pending=0\n",
         "", whole},
        {"a failure without an application logger still gets reported", "!qor_broken_sdk_cpp", "",
         "[Server] Failed to load plugin " + lib("qor_broken_sdk_cpp"), "", out_part},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ScratchFolder dir;
        std::istringstream files(row.files);
        for (std::string file; files >> file;) {
            const auto arrow = file.find('>');
            if (file == "sdk")
                dir.add_sdk();
            else if (file[0] == '!')
                dir.touch(lib(file.substr(1)));
            else
                dir.add_plugin(lib(file.substr(0, arrow)), lib(file.substr(arrow + 1)));
        }
        // A copy of the probe runs from the folder, which is where it looks for plug-ins.
        const fs::path probe = dir.path() / fs::path(CLIENT_TEST_PROBE).filename();
        fs::copy_file(CLIENT_TEST_PROBE, probe);
        const std::string command = quoted(probe) + " " + row.args + " > " +
                                    quoted(dir.path() / "out.txt") + " 2> " +
                                    quoted(dir.path() / "err.txt");
        EXPECT_EQ(std::system((kOuterQuote + command + kOuterQuote).c_str()), 0);
        const std::string out = test_support::read_text(dir.path() / "out.txt");
        const std::string err = test_support::read_text(dir.path() / "err.txt");
        if (row.match == out_part || row.match == both_parts)
            EXPECT_THAT(out, HasSubstr(row.out));
        else
            EXPECT_EQ(out, row.out);
        std::string expected_err = row.err;
        const auto at = expected_err.find("{dir}");
        if (at != std::string::npos) expected_err.replace(at, 5, dir.path().string());
        if (row.match == both_parts)
            EXPECT_THAT(err, HasSubstr(expected_err));
        else
            EXPECT_EQ(err, expected_err);
        EXPECT_THAT(err, ::testing::Not(HasSubstr(lib("qor_sdk_cpp"))));
    }
}

}  // namespace
}  // namespace client_test
