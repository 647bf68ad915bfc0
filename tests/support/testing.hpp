#pragma once

// What every test area shares: hex byte vectors in and out, the text of a thrown error, the
// rule for tests that need a tool from outside the build (a Python peer, openssl), a captured
// log, a peer whose server endpoint is an in-memory loopback, records written and read, and,
// where a test links the simulation core, its calls and scenes, and where it starts the server
// as a process, that process.

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ostream_sink.h>

#include <dax/types.hpp>
#include <qor/qor_client.hpp>
#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp.hpp>
#include <qor/wamp/testing/loopback.hpp>

namespace test_support {

/// "cc 80", "cc80" or "CC 80" -> {0xCC, 0x80}. Blanks are ignored so that rows can group bytes
/// by field, and text in single quotes stands for its own bytes ("A2 'hi'" is A2 68 69), so that
/// a string shows beside its header; anything else that is not a hex digit is a mistake in the
/// test and throws.
inline std::vector<uint8_t> hex(std::string_view text) {
    std::vector<uint8_t> out;
    std::string digits;  // of the byte being read
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ' ' || c == '\n' || c == '\t') continue;
        if (c == '\'' && digits.empty()) {
            const std::size_t end = text.find('\'', i + 1);
            if (end == std::string_view::npos)
                throw std::invalid_argument("unclosed quote in test vector: " + std::string(text));
            out.insert(out.end(), text.data() + i + 1, text.data() + end);
            i = end;
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw std::invalid_argument("bad hex digit in test vector: " + std::string(text));
        digits += c;
        if (digits.size() == 2) {
            out.push_back(static_cast<uint8_t>(std::stoi(digits, nullptr, 16)));
            digits.clear();
        }
    }
    if (!digits.empty()) throw std::invalid_argument("odd number of hex digits in test vector");
    return out;
}

/// {0xCC, 0x80} -> "cc 80": lower case, one blank between bytes, as the tables are written.
inline std::string to_hex(const uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 3);
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0) out += ' ';
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}
inline std::string to_hex(const std::vector<uint8_t>& bytes) {
    return to_hex(bytes.data(), bytes.size());
}
inline std::string to_hex(const qor::serialization::msgpack::buffer& bytes) {
    return to_hex(bytes.data, static_cast<std::size_t>(bytes.size));
}

/// `a` followed by `b`.
inline std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// The bytes of `text` appended to `prefix`.
inline std::vector<uint8_t> with(std::vector<uint8_t> prefix, const std::string& text) {
    prefix.insert(prefix.end(), text.begin(), text.end());
    return prefix;
}

inline std::vector<uint8_t> bytes_of(const qor::serialization::msgpack::buffer& b) {
    return std::vector<uint8_t>(b.data, b.data + b.size);
}

/// One value encoded as a WAMP argument.
template <class T>
qor::serialization::msgpack::buffer encoded(const T& value) {
    std::vector<uint8_t> scratch;
    return qor::wamp::encode_argument(scratch, value);
}

/// The encoded positional arguments of a received or parsed message, as hex.
inline std::string args_hex(const qor::wamp::Message& message) {
    if (message.args_count == 0) return "";
    return to_hex(message.raw.data + message.args_offset, message.args_end - message.args_offset);
}

/// The what() text of the std::runtime_error that `f` throws, or "" when it throws none.
/// Other exceptions pass through, so a wrong exception type fails the test loudly.
template <class F>
std::string error_of(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

/// A fresh, empty folder under the system's temporary folder, removed with everything in it.
class TempFolder {
  public:
    TempFolder() {
        static std::atomic<unsigned> counter{0};
        std::random_device entropy;
        do {
            path_ = std::filesystem::temp_directory_path() /
                    ("qor-test-" + std::to_string(entropy()) + "-" + std::to_string(counter++));
        } while (!std::filesystem::create_directory(path_));
        path_ = std::filesystem::canonical(path_);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }

  private:
    std::filesystem::path path_;
};

/// The whole text of `file`; "" when it cannot be read.
inline std::string read_text(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/// A logger writing "%l %v" lines into a string.
struct CapturedLog {
    std::ostringstream lines;
    std::shared_ptr<spdlog::logger> logger;

    explicit CapturedLog(spdlog::level::level_enum level, const std::string& name = "test") {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(lines);
        // Lines end in "\n" on every platform (spdlog ends them in "\r\n" on Windows).
        sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%l %v", spdlog::pattern_time_type::local, std::string("\n")));
        logger = std::make_shared<spdlog::logger>(name, sink);
        logger->set_level(level);
    }
    std::string text() const { return lines.str(); }
};

/// A connected peer whose server endpoint talks to a loopback: what the peer sends is recorded
/// by `link`, and the test answers, confirms and publishes through it.
struct LoopbackPeer {
    qor::wamp::Client endpoint;
    qor::wamp::testing::LoopbackConnection link{endpoint};
    qor::QorClient peer;

    explicit LoopbackPeer(spdlog::logger* logger = nullptr)
        : endpoint("server", logger), peer(logger) {
        peer.server_endpoint = &endpoint;
        peer.has_server = true;
        peer.server_connected = true;
    }
    /// One full pump: both passes.
    bool pump() {
        const bool first = peer.update_first();
        const bool second = peer.update_second();
        return first || second;
    }
    /// In the `pass`-th first pass from now (1: the next one), run `action` before delivery.
    void on_pass(uint64_t pass, std::function<void()> action) {
        link.before_first = [this, at = link.first_passes + pass, action] {
            if (link.first_passes == at) action();
        };
    }
};

/// `value` as its record writer encodes it.
template <class T>
std::vector<uint8_t> encode(const T& value) {
    std::vector<uint8_t> out;
    dax::types::pack(out, value);
    return out;
}

/// A whole T read from `bytes`; `consumed` receives the bytes the reader advanced over.
template <class T>
T decode(const std::vector<uint8_t>& bytes, uint64_t* consumed = nullptr) {
    qor::serialization::msgpack::ReadBuffer in(bytes.data(), bytes.size());
    T value;
    dax::types::read(in, value);
    if (consumed) *consumed = in.position;
    return value;
}

/// The text of the error raised by reading `bytes` into `target`, or "" when none is raised.
template <class T>
std::string read_error(const std::vector<uint8_t>& bytes, T& target) {
    qor::serialization::msgpack::ReadBuffer in(bytes.data(), bytes.size());
    return error_of([&] { dax::types::read(in, target); });
}
template <class T>
std::string read_error(const std::vector<uint8_t>& bytes) {
    T target;
    return read_error(bytes, target);
}

/// Field-wise equality of records; floating-point fields compare bitwise, so that signed
/// zeros and NaN payloads count.
template <class E>
bool same(const std::vector<E>& a, const std::vector<E>& b);
template <class T>
bool same(const T& a, const T& b) {
    if constexpr (dax::types::is_record_v<T>) {
        return std::apply(
            [&b](const auto&... fa) {
                return std::apply([&fa...](const auto&... fb) { return (same(fa, fb) && ...); },
                                  b.fields());
            },
            a.fields());
    } else if constexpr (std::is_floating_point_v<T>) {
        return std::memcmp(&a, &b, sizeof(T)) == 0;
    } else {
        return a == b;
    }
}
template <class E>
bool same(const std::vector<E>& a, const std::vector<E>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same(a[i], b[i])) return false;
    return true;
}

}  // namespace test_support

#if __has_include(<dax/client.hpp>)
#include <dax/client.hpp>

namespace test_support {

/// A DaxClient on a loopback peer, beside the test plug-in where the program has one: what the
/// client sends is recorded by the loopback, and the test answers, confirms and publishes
/// through it.
class ClientTest : public ::testing::Test {
  protected:
    LoopbackPeer net;
    std::unique_ptr<dax::client::DaxClient> client =
        std::make_unique<dax::client::DaxClient>(&net.peer);
};

}  // namespace test_support
#endif

#if __has_include(<qor/sim/core.hpp>)
#include <map>

#include <qor/sim/core.hpp>
#include <qor/sim/scene.hpp>

namespace qor::sim::testing {

using test_support::TempFolder;
namespace mp = serialization::msgpack;

/// Calls "qor.server.operation.NAME", each argument packed as one value.
template <class... A>
CallResult run(SimulationCore& core, const std::string& name, const A&... args) {
    std::vector<uint8_t> bytes;
    const auto pack_one = [&bytes](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (dax::types::is_record_v<T>)
            dax::types::pack(bytes, v);
        else if constexpr (std::is_array_v<std::remove_reference_t<decltype(v)>>)
            mp::pack(bytes, static_cast<const char*>(v));  // a string literal
        else
            mp::pack(bytes, v);
    };
    (void)pack_one;  // unused when there are no arguments
    (pack_one(args), ...);
    return core.call("qor.server.operation." + name, bytes.data(), bytes.size(), sizeof...(A));
}

/// The one decoded value of a successful call; fails the test on an error.
template <class T>
T value_of(const CallResult& r) {
    EXPECT_TRUE(r.ok) << r.error << ": " << r.message;
    T out{};
    if (!r.ok) return out;
    mp::ReadBuffer in(r.value.data(), r.value.size());
    if constexpr (dax::types::is_record_v<T>)
        dax::types::read(in, out);
    else
        mp::read(in, out);
    EXPECT_EQ(in.remaining(), 0u) << "result holds more than one value";
    return out;
}

template <class T, class... A>
T call_ok(SimulationCore& core, const std::string& name, const A&... args) {
    return value_of<T>(run(core, name, args...));
}

/// A core keeping its files in `folder`.
inline std::unique_ptr<SimulationCore> core_in(const TempFolder& folder,
                                               const std::string& secret = "") {
    CoreOptions options;
    options.data_dir = folder.str();
    options.secret = secret;
    return std::make_unique<SimulationCore>(options);
}

/// A core of its own in a fresh folder.
class CoreTest : public ::testing::Test {
  protected:
    TempFolder folder;
    std::unique_ptr<SimulationCore> core = core_in(folder);

    /// The answer of the last of `n` steps.
    dax::types::integration_result_t step(int n = 1) {
        dax::types::integration_result_t r;
        for (int i = 0; i < n; ++i)
            r = call_ok<dax::types::integration_result_t>(*core, "STEP_SIMULATION");
        return r;
    }
};

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

/// A sphere of radius 0.5 at height `z`.
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

}  // namespace qor::sim::testing
#endif

#if __has_include(<qor/launch/server_process.hpp>)
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <qor/launch/server_process.hpp>

namespace test_support {

/// qor-sim-server from beside the test program, its data and its log in `data`.
inline std::unique_ptr<qor::launch::ServerProcess> start_server(
    const TempFolder& data, const std::vector<std::string>& extra = {}) {
    qor::launch::LaunchOptions options;
    options.executable = qor::launch::executable_folder() + "/qor-sim-server";
    options.args = {"--data-dir", data.str()};
    options.args.insert(options.args.end(), extra.begin(), extra.end());
    options.log_path = (data.path() / "server.log").string();
    return std::make_unique<qor::launch::ServerProcess>(options);
}

/// The client logs its plug-in failures through the spdlog logger "logger"; keep it quiet.
inline void quiet_logger() {
    if (!spdlog::get("logger"))
        spdlog::register_logger(std::make_shared<spdlog::logger>(
            "logger", std::make_shared<spdlog::sinks::null_sink_mt>()));
}

}  // namespace test_support
#endif

/// Skips the current test when `available` is false, or fails it under CI (env `CI` set and not
/// empty), where scripts/install-deps supplies every tool a test needs. `what` names the
/// missing tool; use it first thing in a TEST body or a fixture's SetUp.
#define QOR_REQUIRE_TOOL(available, what)                                                    \
    if (available) {                                                                         \
    } else if (const char* ci = std::getenv("CI"); ci != nullptr && *ci != '\0') {           \
        GTEST_FAIL() << what << " is missing; under CI scripts/install-deps must supply it"; \
    } else                                                                                   \
        GTEST_SKIP() << what << " is missing"
