// qor-sim-server: the reference simulation server. Serves the operations of the simulation
// core as WAMP procedures "qor.server.operation.NAME", publishes per-step states on
// "qor.server.update" and, on request, synthetic device frames, over RawSocket and WebSocket.

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <pthread.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <qor/serialization/msgpack.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/devices.hpp>
#include <qor/transport/server.hpp>
#include <qor/wamp/message.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace wamp = qor::wamp;
using qor::sim::SimulationCore;
using qor::transport::Server;

struct Options {
    qor::transport::ServerOptions server;
    qor::sim::CoreOptions core;
    std::string ticket;
    std::string authid = "client";
    double device_rate = 0;
    bool verbose = false;
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
        } else if (a == "--verbose") {
            o.verbose = true;
        } else {
            bad_usage("unknown option " + a);
        }
    }
    if (!o.server.rawsocket && !o.server.websocket) bad_usage("nothing to listen on");
    if (!o.ticket.empty()) {
        qor::transport::Credential c;
        c.authid = o.authid;
        c.ticket = o.ticket;
        o.server.credentials.push_back(c);
        o.core.secret = o.ticket;
    }
    return o;
}

// The broker and dealer half of the router: calls go to the simulation core on a worker
// thread (a slow operation, such as saving a large scene, never stalls the network thread),
// subscriptions are kept per topic and events are encoded once for all subscribers.
class Router {
  public:
    Router(Server& server, SimulationCore& core, std::shared_ptr<spdlog::logger> log)
        : server_(server), core_(core), log_(std::move(log)), worker_([this] { work(); }) {}

    ~Router() {
        {
            std::lock_guard<std::mutex> lock(work_mutex_);
            stopping_ = true;
        }
        work_cv_.notify_all();
        worker_.join();
    }

    // Network thread.
    void on_message(uint64_t session, const wamp::Message& m) {
        switch (m.type) {
            case wamp::CALL: {
                std::lock_guard<std::mutex> lock(work_mutex_);
                if (closing_) {
                    send_error(session, wamp::CALL, m.request, "wamp.error.canceled",
                               "the server is shutting down");
                    break;
                }
                // A client that floods calls faster than they run must not grow the queue
                // without bound.
                if (calls_.size() >= kMaxQueuedCalls) {
                    send_error(session, wamp::CALL, m.request, "wamp.error.canceled",
                               "too many calls waiting");
                    break;
                }
                calls_.push_back({session, m});
                work_cv_.notify_one();
                break;
            }
            case wamp::SUBSCRIBE:
                subscribe(session, m);
                break;
            case wamp::UNSUBSCRIBE:
                unsubscribe(session, m);
                break;
            case wamp::PUBLISH:
                publish_from(session, m);
                break;
            default:
                // Registrations would let a client offer procedures; this server offers its own
                // only.
                if (m.type == wamp::REGISTER || m.type == wamp::UNREGISTER)
                    send_error(session, m.type, m.request, "wamp.error.not_authorized",
                               "this server accepts no registrations");
                else
                    log_->debug("session {}: ignored {}", session, wamp::type_name(m.type));
        }
    }

    // Answers every call already received, refuses later ones, and returns when the last
    // answer is queued: a QUIT's own RESULT must leave before the server's GOODBYE.
    void drain() {
        std::unique_lock<std::mutex> lock(work_mutex_);
        closing_ = true;
        idle_cv_.wait(lock, [this] { return calls_.empty() && !busy_; });
    }

    void on_leave(uint64_t session) {
        std::lock_guard<std::mutex> lock(topics_mutex_);
        for (auto& [id, sub] : subscriptions_) sub.sessions.erase(session);
    }

    // Any thread: one event, encoded once, to every subscriber of `topic` but `except`.
    void publish(const std::string& topic, const std::vector<uint8_t>& value, uint64_t except = 0) {
        std::vector<uint64_t> targets;
        wamp::Message event(wamp::EVENT);
        {
            std::lock_guard<std::mutex> lock(topics_mutex_);
            auto t = topic_ids_.find(topic);
            if (t == topic_ids_.end()) return;
            const Subscription& sub = subscriptions_.at(t->second);
            for (uint64_t s : sub.sessions)
                if (s != except) targets.push_back(s);
            if (targets.empty()) return;
            event.subscription = wamp::Id(t->second);
            event.publication =
                wamp::Id(std::uniform_int_distribution<uint64_t>(1, wamp::max_id)(random_));
        }
        event.args.emplace_back(value);
        const mp::buffer encoded = wamp::serialize(event);
        for (uint64_t s : targets) server_.send_encoded(s, encoded);
    }

  private:
    static constexpr size_t kMaxQueuedCalls = 100000;

    struct Subscription {
        std::string topic;
        std::set<uint64_t> sessions;
    };
    struct PendingCall {
        uint64_t session;
        wamp::Message message;
    };

    void work() {
        std::unique_lock<std::mutex> lock(work_mutex_);
        for (;;) {
            work_cv_.wait(lock, [this] { return stopping_ || !calls_.empty(); });
            if (calls_.empty()) return;
            PendingCall call = std::move(calls_.front());
            calls_.pop_front();
            busy_ = true;
            lock.unlock();
            answer(call.session, call.message);
            lock.lock();
            busy_ = false;
            if (calls_.empty()) idle_cv_.notify_all();
        }
    }

    void answer(uint64_t session, const wamp::Message& m) {
        const uint8_t* args = m.raw.data + m.args_offset;
        const qor::sim::CallResult r =
            core_.call(m.procedure, args, m.args_end - m.args_offset, m.args_count);
        if (r.ok) {
            wamp::Message result(wamp::RESULT);
            result.request = m.request;
            result.args.emplace_back(r.value);
            // A client that left while its call ran is simply gone; nothing else is affected.
            if (!server_.send(session, result))
                log_->debug("session {} left before its result", session);
        } else {
            send_error(session, wamp::CALL, m.request, r.error, r.message);
        }
    }

    void send_error(uint64_t session, uint32_t request_type, wamp::Id request,
                    const std::string& uri, const std::string& text) {
        wamp::Message e(wamp::ERROR);
        e.request_type = static_cast<int32_t>(request_type);
        e.request = request;
        e.error = uri;
        std::vector<uint8_t> t;
        mp::pack(t, text);
        e.args.emplace_back(t);
        server_.send(session, e);
    }

    void subscribe(uint64_t session, const wamp::Message& m) {
        try {
            wamp::check_topic(m.topic);
        } catch (const std::exception& e) {
            send_error(session, wamp::SUBSCRIBE, m.request, "wamp.error.invalid_uri", e.what());
            return;
        }
        wamp::Message ok(wamp::SUBSCRIBED);
        ok.request = m.request;
        {
            std::lock_guard<std::mutex> lock(topics_mutex_);
            auto t = topic_ids_.find(m.topic);
            if (t == topic_ids_.end()) {
                t = topic_ids_.emplace(m.topic, next_subscription_++).first;
                subscriptions_[t->second].topic = m.topic;
            }
            subscriptions_[t->second].sessions.insert(session);
            ok.subscription = wamp::Id(t->second);
        }
        server_.send(session, ok);
    }

    void unsubscribe(uint64_t session, const wamp::Message& m) {
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(topics_mutex_);
            auto s = subscriptions_.find(m.subscription.value());
            known = s != subscriptions_.end() && s->second.sessions.erase(session) > 0;
        }
        if (!known) {
            send_error(session, wamp::UNSUBSCRIBE, m.request, "wamp.error.no_such_subscription",
                       "not subscribed");
            return;
        }
        wamp::Message ok(wamp::UNSUBSCRIBED);
        ok.request = m.request;
        server_.send(session, ok);
    }

    // Clients may publish to each other too (a plain broker); the publisher gets no copy.
    void publish_from(uint64_t session, const wamp::Message& m) {
        if (m.args_count == 1) {
            std::vector<uint8_t> value(m.raw.data + m.args_offset, m.raw.data + m.args_end);
            publish(m.topic, value, session);
        }
        auto ack = m.details.find("acknowledge");
        if (ack != m.details.end() && ack->second.size == 1 && ack->second.data[0] == 0xc3) {
            wamp::Message ok(wamp::PUBLISHED);
            ok.request = m.request;
            {
                std::lock_guard<std::mutex> lock(topics_mutex_);
                ok.publication =
                    wamp::Id(std::uniform_int_distribution<uint64_t>(1, wamp::max_id)(random_));
            }
            server_.send(session, ok);
        }
    }

    Server& server_;
    SimulationCore& core_;
    std::shared_ptr<spdlog::logger> log_;

    std::mutex topics_mutex_;
    std::map<std::string, uint64_t> topic_ids_;
    std::map<uint64_t, Subscription> subscriptions_;
    uint64_t next_subscription_ = 1;
    std::mt19937_64 random_{std::random_device{}()};

    std::mutex work_mutex_;
    std::condition_variable work_cv_;
    std::condition_variable idle_cv_;
    std::deque<PendingCall> calls_;
    bool busy_ = false;     // a call is being answered
    bool closing_ = false;  // shutting down: no new calls
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);

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
        SimulationCore core(options.core);
        Server server(options.server);
        Router router(server, core, log);
        server.on_message(
            [&router](uint64_t s, const wamp::Message& m) { router.on_message(s, m); });
        server.on_join([&log](const qor::transport::SessionInfo& info) {
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
        auto devices = std::make_unique<qor::sim::DeviceFeed>(
            options.device_rate,
            [&router](const std::string& topic, const std::vector<uint8_t>& value) {
                router.publish(topic, value);
            });

        std::thread signal_waiter([&core, signals] {
            int received = 0;
            sigwait(&signals, &received);
            core.request_quit();
        });

        std::printf("listening rawsocket=%u websocket=%u realm=%s\n", server.rawsocket_port(),
                    server.websocket_port(), options.server.realm.c_str());
        std::fflush(stdout);

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
