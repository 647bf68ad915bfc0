// qor-sim-server: the reference simulation server. Serves the operations of the simulation
// core as WAMP procedures "qor.server.operation.NAME", publishes per-step states on
// "qor.server.update" and, on request, synthetic device frames, over RawSocket and WebSocket.
// A browser that opens the WebSocket port as a web page gets the viewer.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <pthread.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/types/device_topics.hpp>
#include <qor/launch/server_process.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/devices.hpp>
#include <qor/viewer/markers.hpp>
#include <qor/viewer/scene_view.hpp>
#include <qor/viewer/site.hpp>
#include <qor/wamp/message.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace wamp = qor::wamp;
using qor::router::Server;
using qor::sim::SimulationCore;

struct Options {
    qor::router::ServerOptions server;
    qor::sim::CoreOptions core;
    std::string ticket;
    std::string authid = "client";
    double device_rate = 0;
    bool verbose = false;
    bool viewer = true;
    std::string viewer_dir;  // empty: the one shipped beside the executable
};

void usage(std::FILE* to) {
    std::fputs(
        "usage: qor-sim-server [options]\n"
        "  --host ADDRESS          address to listen on (default 127.0.0.1)\n"
        "  --rawsocket-port N      RawSocket port, 0 picks a free one (default 0)\n"
        "  --websocket-port N      WebSocket port, 0 picks a free one (default 0)\n"
        "  --no-rawsocket          do not listen for RawSocket\n"
        "  --no-websocket          do not listen for WebSocket\n"
        "  --realm NAME            the realm clients join (default realm1)\n"
        "  --ticket SECRET         require ticket authentication with this secret\n"
        "  --authid ID             the authid the ticket belongs to (default client)\n"
        "  --data-dir DIR          saved scenes and settings (default ./qor-sim-data)\n"
        "  --devices RATE          publish simulated device frames RATE times a second\n"
        "  --server-period MS      simulated time per step (default 16.667)\n"
        "  --publish-period MS     interval between published states (default 33.333)\n"
        "  --no-viewer             do not serve the browser viewer on the WebSocket port\n"
        "  --viewer-dir DIR        serve the viewer from DIR (default: shipped with the server)\n"
        "  --verbose               log every operation\n"
        "On start it prints one line: listening rawsocket=PORT websocket=PORT realm=NAME\n",
        to);
}

[[noreturn]] void bad_usage(const std::string& what) {
    std::fprintf(stderr, "qor-sim-server: %s\n", what.c_str());
    usage(stderr);
    std::exit(2);
}

double number(const std::string& option, const char* text) {
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0') bad_usage(option + " needs a number, got '" + text + "'");
    return v;
}

uint16_t port(const std::string& option, const char* text) {
    const double v = number(option, text);
    if (v < 0 || v > 65535 || v != static_cast<uint16_t>(v))
        bad_usage(option + " needs a port from 0 to 65535");
    return static_cast<uint16_t>(v);
}

Options parse(int argc, char** argv) {
    Options o;
    o.core.data_dir = "qor-sim-data";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto value = [&]() -> const char* {
            if (i + 1 >= argc) bad_usage(a + " needs a value");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            usage(stdout);
            std::exit(0);
        } else if (a == "--host") {
            o.server.host = value();
        } else if (a == "--rawsocket-port") {
            o.server.rawsocket_port = port(a, value());
        } else if (a == "--websocket-port") {
            o.server.websocket_port = port(a, value());
        } else if (a == "--no-rawsocket") {
            o.server.rawsocket = false;
        } else if (a == "--no-websocket") {
            o.server.websocket = false;
        } else if (a == "--realm") {
            o.server.realm = value();
        } else if (a == "--ticket") {
            o.ticket = value();
        } else if (a == "--authid") {
            o.authid = value();
        } else if (a == "--data-dir") {
            o.core.data_dir = value();
        } else if (a == "--devices") {
            o.device_rate = number(a, value());
            if (o.device_rate < 0 || o.device_rate > 1000)
                bad_usage("--devices needs a rate from 0 to 1000");
        } else if (a == "--server-period") {
            o.core.server_period_ms = number(a, value());
        } else if (a == "--publish-period") {
            o.core.publish_period_ms = number(a, value());
        } else if (a == "--no-viewer") {
            o.viewer = false;
        } else if (a == "--viewer-dir") {
            o.viewer_dir = value();
        } else if (a == "--verbose") {
            o.verbose = true;
        } else {
            bad_usage("unknown option " + a);
        }
    }
    if (!o.server.rawsocket && !o.server.websocket) bad_usage("nothing to listen on");
    if (!o.ticket.empty()) {
        qor::router::Credential c;
        c.authid = o.authid;
        c.ticket = o.ticket;
        o.server.credentials.push_back(c);
        o.core.secret = o.ticket;
    }
    return o;
}

qor::router::Answer answer_of(qor::sim::CallResult&& r) {
    if (r.ok) return qor::router::Answer::result(std::move(r.value));
    return qor::router::Answer::failure(r.error, r.message);
}

// The dealer: every call goes to the simulation core, but the viewer's scene description.
qor::router::Broker::Dealer serve_operation(SimulationCore& core) {
    return [&core](uint64_t, const wamp::Message& m) -> std::optional<qor::router::Answer> {
        const uint8_t* args = m.raw.data + m.args_offset;
        return answer_of(
            m.procedure == qor::viewer::kSceneProcedure
                ? qor::viewer::describe_scene(core)
                : core.call(m.procedure, args, m.args_end - m.args_offset, m.args_count));
    };
}

// The quick operations, answered on the network thread when the core is free at once; the
// others, and those when the core is busy, go to the broker's worker.
bool serve_quick(SimulationCore& core, const wamp::Message& m,
                 std::optional<qor::router::Answer>& answer) {
    qor::sim::CallResult r;
    if (!core.try_call(m.procedure, m.raw.data + m.args_offset, m.args_end - m.args_offset,
                       m.args_count, r))
        return false;
    answer = answer_of(std::move(r));
    return true;
}

// The topics this server publishes: the state updates and every device stream a client binds.
bool server_owned(const std::string& topic) {
    static const std::set<std::string> owned = [] {
        const std::vector<std::string> devices = dax::types::device_topics();
        std::set<std::string> names(devices.begin(), devices.end());
        names.insert(SimulationCore::kUpdateTopic);
        return names;
    }();
    return owned.count(topic) != 0;
}

// Scenes, meshes and state maps of a megabyte or more pass through several buffers per call.
// Left to glibc, each would be mapped fresh and unmapped after, paying a page fault per 4 KiB
// on every call; kept in the heap instead, they reuse memory already faulted in. The heap is
// still handed back to the system when a crowd of connections leaves.
void keep_large_blocks_in_heap() {
#if defined(__GLIBC__)
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest glibc allows
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    keep_large_blocks_in_heap();

    // Signals are taken by one thread with sigwait, so every other thread runs undisturbed
    // and a Ctrl-C shuts down exactly like QUIT.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    auto log = spdlog::stderr_color_mt("qor-sim-server");
    log->set_level(options.verbose ? spdlog::level::debug : spdlog::level::info);
    options.core.logger = log;
    options.server.logger = log;

    try {
        std::unique_ptr<qor::viewer::Site> site;
        if (options.viewer && options.server.websocket) {
            const std::string folder =
                options.viewer_dir.empty()
                    ? qor::viewer::find_viewer_folder(qor::launch::executable_folder())
                    : options.viewer_dir;
            if (folder.empty()) {
                log->warn("viewer files not found beside the server; the viewer is off");
            } else {
                site = std::make_unique<qor::viewer::Site>(folder);
                options.server.http = [&site](const qor::transport::HttpRequest& request) {
                    return site->answer(request);
                };
            }
        }
        SimulationCore core(options.core);
        Server server(options.server);
        qor::router::BrokerOptions broker_options;
        broker_options.logger = log;
        broker_options.server_owned = server_owned;
        // Calls run on the broker's worker: a slow operation, such as saving a large scene,
        // never stalls the network thread. Quick ones are answered on it when the core is free.
        broker_options.quick = [&core](uint64_t, const wamp::Message& m,
                                       std::optional<qor::router::Answer>& answer) {
            return serve_quick(core, m, answer);
        };
        qor::router::Broker router(server, serve_operation(core), broker_options);
        server.on_message(
            [&router](uint64_t s, wamp::Message& m) { router.on_message(s, std::move(m)); });
        server.on_join([&log](const qor::router::SessionInfo& info) {
            log->info("session {} joined over {} from {}", info.id, info.transport, info.peer);
        });
        server.on_leave([&router, &log](uint64_t s, const std::string& reason) {
            router.on_leave(s);
            log->info("session {} left: {}", s, reason);
        });
        server.start();
        core.set_publisher([&router](const std::string& topic, const std::vector<uint8_t>& value) {
            router.publish(topic, value);
        });
        // Device frames go to the viewer's markers topic too, as points, while a page listens.
        auto devices = std::make_unique<qor::sim::DeviceFeed>(
            options.device_rate,
            [&router](const std::string& topic, const std::vector<uint8_t>& value) {
                router.publish(topic, value);
                if (!router.subscribers(qor::viewer::kMarkersTopic).empty())
                    if (auto points = qor::viewer::markers_of(topic, value))
                        router.publish(qor::viewer::kMarkersTopic, *points);
            });

        std::thread signal_waiter([&core, signals] {
            int received = 0;
            sigwait(&signals, &received);
            core.request_quit();
        });

        std::printf("listening rawsocket=%u websocket=%u realm=%s\n", server.rawsocket_port(),
                    server.websocket_port(), options.server.realm.c_str());
        std::fflush(stdout);
        if (site)
            log->info("viewer at http://{}:{}/ (files from {})", options.server.host,
                      server.websocket_port(), site->folder());

        core.wait_for_quit();
        log->info("shutting down");
        router.drain();
        devices.reset();
        core.set_publisher(nullptr);
        server.shutdown("wamp.close.system_shutdown", std::chrono::milliseconds(2000));
        // Wake the signal thread if no signal came.
        pthread_kill(signal_waiter.native_handle(), SIGTERM);
        signal_waiter.join();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qor-sim-server: %s\n", e.what());
        return 1;
    }
    return 0;
}
