// The server side of the browser viewer: which requests reach which file, the scene answer
// the page draws from (checked against what a real step publishes), the device markers, and
// the plain HTTP answer on the WebSocket listener beside working upgrades.

#include <fstream>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <boost/asio.hpp>
#include <msgpack.hpp>

#include <dax/types.hpp>
#include <qor/qor_client.hpp>
#include <qor/router/server.hpp>
#include <qor/transport/connect.hpp>
#include <qor/viewer/files.hpp>
#include <qor/viewer/markers.hpp>
#include <qor/viewer/scene_view.hpp>
#include <qor/viewer/site.hpp>

#include "support/testing.hpp"

namespace qor::viewer {
namespace {

namespace dt = dax::types;
using namespace sim::testing;
using Doubles = std::vector<double>;

TEST(ViewerFiles, ResolvesOnlyPlainFilesOfTheFolder) {
    // Method, target, status and, on 200, the file's path.
    std::vector<std::tuple<const char*, const char*, int, const char*>> rows = {
        {"GET", "/", 200, "index.html"},
        {"HEAD", "/", 200, "index.html"},
        {"GET", "/viewer.js", 200, "viewer.js"},
        {"GET", "/lib/three.module.min.js?v=3#top", 200, "lib/three.module.min.js"},
        {"GET", "/lib/addons/controls/OrbitControls.js", 200,
         "lib/addons/controls/OrbitControls.js"},
        {"GET", "/%76iewer.css", 200, "viewer.css"},
        {"POST", "/", 405, ""},
        {"PUT", "/index.html", 405, ""},
    };
    for (const char* target :
         {"", "index.html", "http://127.0.0.1/index.html", "*", "/%", "/%2", "/%zz.js"})
        rows.push_back({"GET", target, 400, ""});
    // Outside the folder, or not a plain file of it, however the path is spelt.
    for (const char* target :
         {"/../secret.html", "/lib/../../etc/passwd.js", "/%2e%2e/secret.html",
          "/%2E%2E%2Fsecret.html", "/lib%2f..%2f..%2fsecret.js", "/%252e%252e/secret.html",
          "/./index.html", "//etc/passwd.js", "/lib//three.js", "/lib/", "/..\\secret.html",
          "/%5c..%5csecret.html", "/index.html%00.js", "/C:/secret.html", "/.hidden.js",
          "/server.log", "/viewer", "/caf%C3%A9.html"})
        rows.push_back({"GET", target, 404, ""});
    for (const auto& [method, target, status, path] : rows) {
        SCOPED_TRACE(std::string(method) + " " + target);
        const FileRequest got = resolve(method, target);
        EXPECT_EQ(got.status, status);
        EXPECT_EQ(got.path, path);
        EXPECT_EQ(got.content_type.empty(), status != 200);
    }
    EXPECT_EQ(resolve("GET", "/").content_type, "text/html; charset=utf-8");
    EXPECT_EQ(resolve("GET", "/a.js").content_type, "text/javascript; charset=utf-8");
}

TEST(ViewerFiles, SiteReadsTheFileAndNothingElse) {
    TempFolder root;
    std::filesystem::create_directories(root.path() / "site" / "lib");
    std::ofstream(root.path() / "site" / "index.html") << "<p>page</p>";
    std::ofstream(root.path() / "site" / "lib" / "a.js") << "let a;";
    std::ofstream(root.path() / "secret.html") << "secret";
    std::filesystem::create_directories(root.path() / "site" / "dir.js");
    const Site site((root.path() / "site").string());

    const std::tuple<const char*, const char*, int, const char*> rows[] = {
        {"GET", "/", 200, "<p>page</p>"},
        {"HEAD", "/", 200, "<p>page</p>"},  // the listener leaves the body out
        {"GET", "/lib/a.js", 200, "let a;"},
        {"GET", "/missing.js", 404, "not found\n"},
        {"GET", "/dir.js", 404, "not found\n"},
        {"GET", "/../secret.html", 404, "not found\n"},
        {"GET", "/%", 400, "bad request\n"},
        {"DELETE", "/", 405, "method not allowed\n"},
    };
    for (const auto& [method, target, status, body] : rows) {
        const transport::HttpResponse got = site.answer({method, target});
        EXPECT_EQ(got.status, status) << target;
        EXPECT_EQ(got.body, body) << target;
    }
    EXPECT_EQ(find_viewer_folder(root.str()), "");
    std::filesystem::rename(root.path() / "site", root.path() / "viewer");
    EXPECT_EQ(find_viewer_folder(root.str()), root.str() + "/viewer");
}

// ---- the scene answer ------------------------------------------------------------------------

msgpack::object field(const msgpack::object& map, const std::string& key) {
    for (const auto& kv : map.via.map)
        if (kv.key.as<std::string>() == key) return kv.val;
    ADD_FAILURE() << "no key " << key;
    return {};
}

using ViewerScene = CoreTest;

TEST_F(ViewerScene, DescribesBodiesAndWhereAStepKeepsTheirPoses) {
    const long long mesh = call_ok<long long>(*core, "CREATE_TRIMESH", "tri", 3, 1, 0);
    const dt::mesh_batch_t triangle{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {}, {{0, 1, 2}}};
    call_ok<int>(*core, "UPDATE_TRIMESH", mesh, 0, 0, triangle);
    call_ok<int>(*core, "SEND_SCENE",
                 scene_of({ground(1), body(2, sim::Shape::box, {0.5, 0.25, 1}, 1, {1, 2, 3}),
                           ball(3, 4), body(4, sim::Shape::mesh, {2, 2, 2}, 1, {0, 0, 6}, mesh)}));

    const sim::CallResult r = describe_scene(*core);
    ASSERT_TRUE(r.ok) << r.message;
    const auto handle =
        msgpack::unpack(reinterpret_cast<const char*>(r.value.data()), r.value.size());
    const msgpack::object root = handle.get();

    const auto bodies = field(root, "bodies").as<std::vector<msgpack::object>>();
    ASSERT_EQ(bodies.size(), 3u);
    EXPECT_EQ(field(bodies[0], "id").as<int>(), 2);
    EXPECT_EQ(field(bodies[0], "shape").as<std::string>(), "box");
    EXPECT_EQ(field(bodies[0], "size").as<Doubles>(), (Doubles{0.5, 0.25, 1}));
    EXPECT_EQ(field(bodies[0], "position").as<Doubles>(), (Doubles{1, 2, 3}));
    EXPECT_EQ(field(bodies[0], "rotation").as<Doubles>(), (Doubles{1, 0, 0, 0}));
    EXPECT_EQ(field(bodies[1], "shape").as<std::string>(), "sphere");
    EXPECT_EQ(field(bodies[2], "shape").as<std::string>(), "mesh");
    EXPECT_EQ(field(bodies[2], "vertices").as<Doubles>(), (Doubles{0, 0, 0, 1, 0, 0, 0, 1, 0}));
    EXPECT_EQ(field(bodies[2], "triangles").as<std::vector<int>>(), (std::vector<int>{0, 1, 2}));
    const auto planes = field(root, "planes").as<std::vector<msgpack::object>>();
    ASSERT_EQ(planes.size(), 1u);
    EXPECT_EQ(field(planes[0], "normal").as<Doubles>(), (Doubles{0, 0, 1}));

    // The page reads a step only through these positions: they must find the step number,
    // the time and each body's pose in the bytes a step really carries.
    const auto update = field(root, "update").as<std::map<std::string, int>>();
    const auto state = field(root, "body_state").as<std::map<std::string, int>>();
    const sim::CallResult step = run(*core, "STEP_SIMULATION");
    ASSERT_TRUE(step.ok);
    const auto step_handle =
        msgpack::unpack(reinterpret_cast<const char*>(step.value.data()), step.value.size());
    const auto fields = step_handle.get().as<std::vector<msgpack::object>>();
    EXPECT_EQ(fields.at(update.at("step")).as<int>(), 1);
    const auto details = fields.at(update.at("details")).as<std::vector<msgpack::object>>();
    EXPECT_NEAR(details.at(update.at("time")).as<double>(), 1.0 / 60, 1e-6);
    EXPECT_EQ(details.at(update.at("state")).as<int>(), 0);  // stopped, stepped by hand
    const auto bin = fields.at(update.at("states")).as<msgpack::type::raw_ref>();
    const auto states_handle = msgpack::unpack(bin.ptr, bin.size);
    const auto states = states_handle.get().as<std::map<int, std::vector<msgpack::object>>>();
    const auto box = states.at(2);
    EXPECT_EQ(box.at(state.at("position")).as<Doubles>()[0], 1.0);
    EXPECT_EQ(box.at(state.at("rotation")).as<Doubles>().size(), 4u);
    EXPECT_LT(states.at(3).at(state.at("position")).as<Doubles>()[2], 4.0);
}

// ---- device markers --------------------------------------------------------------------------

TEST(ViewerMarkers, PointsOfEachFamilyAndNothingFromOthers) {
    using test_support::encode;
    dt::kinect_frame_t kinect;
    kinect.bodies.resize(1);
    kinect.bodies[0].joints.resize(2);
    kinect.bodies[0].joints[1].pose.z = 1.5f;
    dt::xsens_frame_t xsens;
    xsens.segments.resize(3);
    xsens.segments[2].vector_a.x = 2;
    dt::optitrack_frame_t opti;
    opti.bodies.resize(1);
    opti.bodies[0].pose.y = -1;
    dt::art_frame_t art;
    art.list_a.resize(2);
    dt::leap_frame_t leap;

    std::vector<uint8_t> truncated = encode(kinect);
    truncated.pop_back();
    // The topic, the frame, the kind of markers (null: none) and their points.
    const std::tuple<std::string, std::vector<uint8_t>, const char*, Doubles> rows[] = {
        {"kinect_frame_0", encode(kinect), "skeleton", {0, 0, 0, 0, 0, 1.5}},
        {"kinect_frame_4", encode(kinect), "skeleton", {0, 0, 0, 0, 0, 1.5}},
        {"xsens_frame", encode(xsens), "skeleton", {0, 0, 0, 0, 0, 0, 2, 0, 0}},
        {"optitrack_frame", encode(opti), "markers", {0, -1, 0}},
        {"art_frame", encode(art), "markers", {0, 0, 0, 0, 0, 0}},
        {"leap_frame_0", encode(leap), nullptr, {}},
        {"qor.server.update", encode(kinect), nullptr, {}},
        {"kinect_frame_0", truncated, nullptr, {}},
        {"xsens_frame", encode(kinect), nullptr, {}},
    };
    for (const auto& [topic, frame, kind, points] : rows) {
        SCOPED_TRACE(topic);
        const auto got = markers_of(topic, frame);
        ASSERT_EQ(got.has_value(), kind != nullptr);
        if (!got) continue;
        const auto handle =
            msgpack::unpack(reinterpret_cast<const char*>(got->data()), got->size());
        const auto map = handle.get().as<std::map<std::string, msgpack::object>>();
        EXPECT_EQ(map.at("device").as<std::string>(), topic);
        EXPECT_EQ(map.at("kind").as<std::string>(), kind);
        EXPECT_EQ(map.at("points").as<Doubles>(), points);
    }
}

// ---- the listener ----------------------------------------------------------------------------

std::string raw_http(uint16_t port, const std::string& request) {
    namespace asio = boost::asio;
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), port});
    asio::write(socket, asio::buffer(request));
    std::string answer;
    boost::system::error_code ec;
    char chunk[4096];
    for (;;) {
        const size_t n = socket.read_some(asio::buffer(chunk), ec);
        answer.append(chunk, n);
        if (ec) break;
    }
    return answer;
}

TEST(ViewerListener, PlainRequestsGetThePageAndUpgradesStillJoin) {
    router::ServerOptions options;
    options.rawsocket = false;
    std::vector<std::string> seen;
    options.http = [&seen](const transport::HttpRequest& r) {
        seen.push_back(r.method + " " + r.target);
        if (r.target == "/throw") throw std::runtime_error("handler broke");
        return transport::HttpResponse{200, "text/html; charset=utf-8", "<p>hello</p>"};
    };
    router::Server server(options);
    server.start();
    const uint16_t port = server.websocket_port();

    const std::string get = raw_http(port, "GET /x?y=1 HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(get.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << get;
    EXPECT_NE(get.find("Content-Type: text/html; charset=utf-8\r\n"), std::string::npos);
    EXPECT_NE(get.find("Content-Length: 12\r\n"), std::string::npos);
    EXPECT_EQ(get.substr(get.size() - 12), "<p>hello</p>");
    const std::string head = raw_http(port, "HEAD / HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_NE(head.find("Content-Length: 12\r\n"), std::string::npos) << head;
    EXPECT_EQ(head.find("hello"), std::string::npos);
    const std::string broken = raw_http(port, "GET /throw HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(broken.rfind("HTTP/1.1 500", 0), 0u) << broken;
    // An upgrade without our subprotocol is refused as before, not handed to the page.
    const std::string other = raw_http(
        port,
        "GET / HTTP/1.1\r\nHost: a\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    EXPECT_EQ(other.rfind("HTTP/1.1 400", 0), 0u) << other;
    EXPECT_NE(other.find("subprotocol wamp.2.msgpack not offered"), std::string::npos);

    QorClient peer;
    transport::connect(peer, "ws://127.0.0.1:" + std::to_string(port));
    EXPECT_EQ(server.sessions().size(), 1u);
    server.stop();
    EXPECT_EQ(seen, (std::vector<std::string>{"GET /x?y=1", "HEAD /", "GET /throw"}));
}

// The page shipped by default is the browser test's; told not to, the server answers a plain
// request on its WebSocket port as any non-upgrade.
TEST(ViewerListener, TheServerShipsNoPageWhenToldNot) {
    TempFolder data;
    const auto server = test_support::start_server(data, {"--no-rawsocket", "--no-viewer"});
    const std::string answer =
        raw_http(server->websocket_port(), "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(answer.substr(0, answer.find("\r\n")), "HTTP/1.1 400 Bad Request");
}

}  // namespace
}  // namespace qor::viewer
