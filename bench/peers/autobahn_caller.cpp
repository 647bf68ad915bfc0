// A third-party caller for the transport benchmark: autobahn-cpp pipelining calls to a router,
// so that our client's rate can be set beside a mature peer's through the same router and
// callee, inside one run of bench_transport.
//
//   peer_autobahn_caller URL PROCEDURE BATCH BATCHES
//
// URL is rs://host:port or ws://host:port/path. Each batch issues BATCH calls without waiting,
// then waits for every answer (on futures, so this thread sleeps as the peer intends). Prints
// one line: "calls N seconds S cpu C", the wall time of the batches and the CPU the whole
// process used meanwhile (its I/O thread included).

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <autobahn/autobahn.hpp>
#include <autobahn/wamp_websocketpp_websocket_transport.hpp>
#include <boost/asio.hpp>
#include <websocketpp/config/asio_no_tls_client.hpp>

namespace {

double cpu_seconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

using WsClient = websocketpp::client<websocketpp::config::asio_client>;
using WsTransport = autobahn::wamp_websocketpp_websocket_transport<websocketpp::config::asio_client>;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s URL PROCEDURE BATCH BATCHES\n", argv[0]);
        return 2;
    }
    const std::string url = argv[1];
    const std::string procedure = argv[2];
    const int batch = std::atoi(argv[3]);
    const int batches = std::atoi(argv[4]);
    boost::asio::io_service io;
    std::thread runner;
    try {
        boost::asio::io_service::work keep(io);
        std::shared_ptr<autobahn::wamp_transport> transport;
        WsClient ws;
        if (url.rfind("rs://", 0) == 0) {
            const std::string rest = url.substr(5);
            const auto colon = rest.rfind(':');
            const boost::asio::ip::tcp::endpoint at(
                boost::asio::ip::address::from_string(rest.substr(0, colon)),
                uint16_t(std::atoi(rest.c_str() + colon + 1)));
            transport = std::make_shared<autobahn::wamp_tcp_transport>(io, at);
        } else if (url.rfind("ws://", 0) == 0) {
            ws.clear_access_channels(websocketpp::log::alevel::all);
            ws.clear_error_channels(websocketpp::log::elevel::all);
            ws.init_asio(&io);
            // As our client and autobahn-cpp's own RawSocket do: no Nagle delay.
            ws.set_tcp_post_init_handler([&ws](websocketpp::connection_hdl connection) {
                ws.get_con_from_hdl(connection)->get_raw_socket().set_option(
                    boost::asio::ip::tcp::no_delay(true));
            });
            transport = std::make_shared<WsTransport>(ws, url);
        } else {
            std::fprintf(stderr, "unsupported url %s\n", url.c_str());
            return 2;
        }
        auto session = std::make_shared<autobahn::wamp_session>(io);
        transport->attach(std::static_pointer_cast<autobahn::wamp_transport_handler>(session));
        runner = std::thread([&io] { io.run(); });

        transport->connect().get();
        session->start().get();
        session->join("realm1").get();

        const double cpu_before = cpu_seconds();
        const auto start = std::chrono::steady_clock::now();
        std::vector<boost::future<autobahn::wamp_call_result>> answers;
        answers.reserve(size_t(batch));
        for (int b = 0; b < batches; ++b) {
            for (int i = 0; i < batch; ++i) answers.push_back(session->call(procedure));
            for (auto& answer : answers) answer.get();
            answers.clear();
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double cpu = cpu_seconds() - cpu_before;

        std::printf("calls %lld seconds %.6f cpu %.6f\n", (long long)batch * batches, seconds, cpu);
        std::fflush(stdout);
        // The figures are out; a router that hangs up first makes the rest throw, harmlessly.
        try {
            session->leave().get();
            session->stop().get();
            transport->disconnect().get();
        } catch (const std::exception&) {
        }
        io.stop();
        runner.join();
        return 0;
    } catch (const std::exception& e) {
        io.stop();
        if (runner.joinable()) runner.join();
        std::fprintf(stderr, "autobahn caller: %s\n", e.what());
        return 1;
    }
}
