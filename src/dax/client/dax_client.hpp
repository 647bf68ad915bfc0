#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <dax/client/components/client_component.hpp>
#include <dax/client/components/component_map.hpp>
#include <dax/client/components/module_factory.hpp>
#include <dax/types.hpp>
#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp/rpc.hpp>

namespace qor {
class QorClient;
}

namespace dax::plugins {
template <class Factory>
class PluginHandler;
}

namespace dax::client {

/// The latest frame of a device family with one stream.
template <class Frame>
struct DeviceStore {
    bool device_available = false;  ///< a frame has arrived since subscription
    Frame device_frame{};           ///< the latest frame
};

/// The latest frame of each stream of a device family with numbered streams.
template <class Frame>
struct DeviceStores {
    std::vector<bool> device_available;  ///< bit `id` is set once stream `id` delivered a frame
    std::vector<Frame> device_frames;    ///< the latest frame of stream `id`
};

/// How the blocking operations and sync_step wait between pump passes.
enum class WaitStrategy {
    spin,   ///< pass after pass without pause: lowest latency, one core busy (the default)
    sleep,  ///< sleeps in the OS until the link has something to do (QorClient::wait)
};

/// The application's handle on the simulation server: its operations (each blocking and
/// asynchronous), scene synchronisation, the component registry and the device streams.
///
/// Threading: one thread at a time. Nothing happens unless the application pumps with
/// full_update() (blocking operations and sync_step pump by themselves); every callback runs
/// inside the pump on that thread. The peer is borrowed and must outlive the client.
///
/// Copies are shallow: a copy shares the components, factories and plug-in handler of its
/// source, and only one of them may be destroyed. The subscriptions the client makes through
/// the peer are not withdrawn when it is destroyed: stop pumping the peer, or destroy it,
/// before events for a destroyed client can arrive.
class DaxClient {
  public:
    /// The callback type of the asynchronous operations.
    template <class T>
    using Callback = std::function<void(qor::wamp::RpcResult<T>)>;

    /// Prints the start lines, loads plug-ins beside the executable, subscribes device topics;
    /// a null peer raises "DaxClient: peer must not be null".
    explicit DaxClient(qor::QorClient* peer);
    /// Member-wise, shallow copy.
    DaxClient(const DaxClient& other) = default;
    /// Member-wise, shallow assignment; what the target held is dropped, not released.
    DaxClient& operator=(const DaxClient& other) = default;
    /// Deletes components, then factories, prints "[Client] Cleanup", unloads plug-ins.
    virtual ~DaxClient();

    /// The borrowed peer.
    qor::QorClient* getPeer();
    /// Time-out of the blocking operations in milliseconds; any value is accepted.
    void setTimeoutMs(int ms);
    /// Time-out of the blocking operations in milliseconds.
    int getTimeout();
    /// Opt-in limit, in milliseconds, for the answer of every operation (asynchronous forms
    /// included) sent from now on; 0, the default, waits for ever. A call still unanswered
    /// after it completes with an error result "qor.error.call_timeout" inside a pump, and a
    /// WAMP CANCEL is sent for it. Unlike the blocking time-out, the call itself ends.
    void setAsyncTimeoutMs(int ms);
    /// The limit set by setAsyncTimeoutMs (0: none).
    int getAsyncTimeoutMs() const;
    /// Opt-in: how blocking operations and sync_step wait between passes (spin by default).
    /// Time-outs and results are the same either way; only the CPU spent waiting differs.
    void setWaitStrategy(WaitStrategy strategy);
    /// The strategy set by setWaitStrategy.
    WaitStrategy getWaitStrategy() const;
    /// Number of the last state update applied (-1 before the first).
    int getSceneStateVersion() const;
    /// Runs both pump passes of the peer; true when either processed anything.
    bool full_update();
    /// Always false; sends nothing.
    bool ping_server();
    /// Subscribes update_scene_state to "qor.server.update"; `name` is not used.
    void init(const std::string& name,
              const std::function<void(int64_t, std::string)>& on_subscribed);

    // ---- component registry ----------------------------------------------------------------

    /// Creates a component of `type` under the next automatic id, client id 0.
    IClientComponent* Create(const std::string& type);
    /// Creates a component through the first factory that makes `type`; an existing entry for
    /// `id` is overwritten without deleting its component.
    IClientComponent* Create(const std::string& type, int64_t id, int clientId);
    /// The component stored under `id`, or null.
    IClientComponent* getComponent(int64_t id);
    /// Deletes every component in ascending id order.
    void Clear();
    /// Clear(), then automatic ids start again from 0.
    void Reset();

    // ---- scene synchronisation -------------------------------------------------------------

    /// Sends every component to the server (SEND_SCENE); returns at once.
    void send_scene_to_server();
    /// Deletes every component now, then rebuilds them from the server's scene when it arrives.
    void get_server_scene();
    /// Updates the existing components from the server's scene when it arrives.
    void update_scene_from_server();
    /// Applies a scene record: creates components (`create`) or updates existing ones.
    void deserialize_components(const qor::serialization::msgpack::buffer& data, bool create);
    /// Applies one per-step state to the components named in it.
    void update_scene_state(const dax::types::integration_result_t& result);
    /// Runs one step on the server and applies its state before returning; no time-out. Like
    /// a blocking operation, only this step's own failure leaves through it (see
    /// `handler_errors`).
    void sync_step();

    // ---- device streams --------------------------------------------------------------------

    /// Copies the latest ART frame into `out`; false (and `out` untouched) before the first.
    bool get_art_frame(dax::types::art_frame_t& out);
    /// Copies the latest Moticon frame into `out`; false (and `out` untouched) before the first.
    bool get_moticon_frame(dax::types::moticon_frame_t& out);
    /// Copies the latest OptiTrack frame into `out`; false (and `out` untouched) before the first.
    bool get_optitrack_frame(dax::types::optitrack_frame_t& out);
    /// Copies the latest Xsens frame into `out`; false (and `out` untouched) before the first.
    bool get_xsens_frame(dax::types::xsens_frame_t& out);
    /// True once an ART frame has arrived.
    bool is_art_available();
    /// True once a Moticon frame has arrived.
    bool is_moticon_available();
    /// True once an OptiTrack frame has arrived.
    bool is_optitrack_available();
    /// True once an Xsens frame has arrived.
    bool is_xsens_available();
    /// Copies the latest frame of Kinect stream `id`; false when none (or `id` out of range).
    bool get_kinect_frame(dax::types::kinect_frame_t& out, int id);
    /// Copies the latest frame of Leap stream `id`; false when none (or `id` out of range).
    bool get_leap_frame(dax::types::leap_frame_t& out, int id);
    /// Copies the latest frame of OpenVR stream `id`; false when none (or `id` out of range).
    bool get_openvr_frame(dax::types::openvr_frame_t& out, int id);
    /// Ids of the Kinect streams that delivered a frame, ascending.
    std::vector<int> get_kinect_ids();
    /// Ids of the Leap streams that delivered a frame, ascending.
    std::vector<int> get_leap_ids();
    /// Ids of the OpenVR streams that delivered a frame, ascending.
    std::vector<int> get_openvr_ids();
    /// True once Kinect stream `id` delivered a frame; false for an id out of range.
    bool is_kinect_available(int id);
    /// True once Leap stream `id` delivered a frame; false for an id out of range.
    bool is_leap_available(int id);
    /// True once OpenVR stream `id` delivered a frame; false for an id out of range.
    bool is_openvr_available(int id);

    // ---- server operations -----------------------------------------------------------------
    // Each NAME has a blocking form, which pumps until the result arrives and throws
    // "DaxClient: timeout during 'NAME' call" after getTimeout() ms or the server's error text,
    // and an asynchronous form, which delivers the RpcResult to `callback` inside a later pump.
    // Both throw "qor client cannot call operations before server is connected".

#define DAX_OPERATION_0(NAME, T) \
    T NAME();                    \
    void NAME(const Callback<T>& callback);
#define DAX_OPERATION_1(NAME, T, A1) \
    T NAME(const A1& a1);            \
    void NAME(const A1& a1, const Callback<T>& callback);
#define DAX_OPERATION_2(NAME, T, A1, A2) \
    T NAME(const A1& a1, const A2& a2);  \
    void NAME(const A1& a1, const A2& a2, const Callback<T>& callback);
#define DAX_OPERATION_3(NAME, T, A1, A2, A3)          \
    T NAME(const A1& a1, const A2& a2, const A3& a3); \
    void NAME(const A1& a1, const A2& a2, const A3& a3, const Callback<T>& callback);
#define DAX_OPERATION_4(NAME, T, A1, A2, A3, A4)                    \
    T NAME(const A1& a1, const A2& a2, const A3& a3, const A4& a4); \
    void NAME(const A1& a1, const A2& a2, const A3& a3, const A4& a4, const Callback<T>& callback);
#include <dax/types/operations.def>
#undef DAX_OPERATION_0
#undef DAX_OPERATION_1
#undef DAX_OPERATION_2
#undef DAX_OPERATION_3
#undef DAX_OPERATION_4

    // ---- fields ----------------------------------------------------------------------------

    qor::QorClient* peer;                             ///< borrowed; never deleted by the client
    ComponentMap components;                 ///< owned, by ascending id
    std::vector<IModuleFactory*> factories;           ///< owned, in registration order
    int64_t next_component_id = 0;                    ///< id of the next Create(type)
    dax::plugins::PluginHandler<IModuleFactory>* plugin_handler;  ///< owns the plug-in libraries
    int scene_state_version = -1;  ///< incremented by every update_scene_state
    int timeout_ms = 1000;         ///< time-out of blocking operations

    // The last frame of each device stream; topics in <dax/types/device_topics.hpp>.
    DeviceStore<dax::types::art_frame_t> art;              ///< kArtTopics
    DeviceStores<dax::types::leap_frame_t> leap;           ///< kLeapTopics, by stream id
    DeviceStore<dax::types::optitrack_frame_t> optitrack;  ///< kOptitrackTopics
    DeviceStore<dax::types::xsens_frame_t> xsens;          ///< kXsensTopics
    DeviceStores<dax::types::kinect_frame_t> kinect;       ///< kKinectTopics, by stream id
    DeviceStores<dax::types::openvr_frame_t> openvr;       ///< kOpenvrTopics, by stream id
    DeviceStore<dax::types::moticon_frame_t> moticon;      ///< kMoticonTopics

    /// Errors raised by other handlers (events, other calls' callbacks) while a blocking
    /// operation or sync_step pumped: each is logged at error level on "logger" and counted here
    /// instead of leaving through the unrelated operation. full_update() still lets them through.
    uint64_t handler_errors = 0;
    int async_timeout_ms = 0;  ///< see setAsyncTimeoutMs
    WaitStrategy wait_strategy = WaitStrategy::spin;  ///< see setWaitStrategy

  private:
    // Construction after the fields: prints, loads plug-ins, subscribes the device topics.
    void load_plugins_and_subscribe();

    void init_art();
    void init_leap(int count);
    void init_optitrack();
    void init_xsens();
    void init_kinect(int count);
    void init_openvr(int count);
    void init_moticon();

    // The one path every operation takes to the server, and the one wait of the blocking forms.
    template <class T, class... Args>
    void call(const char* name, const Callback<T>& callback, const Args&... args);
    template <class T, class Send>
    T wait_for(const char* name, const Send& send);
    // With the sleep strategy, sleeps until the link has work or `until` (at most); with spin,
    // returns at once.
    void pause_until(std::chrono::steady_clock::time_point until);
    // Logs and counts an error of another handler met during the blocking call `name`.
    void note_handler_error(const char* name, const std::exception& error);

    template <class Frame>
    void bind_stream(DeviceStore<Frame>& store, const std::string& topic);
    template <class Frame>
    void bind_streams(DeviceStores<Frame>& stores, const dax::types::DeviceTopics& topics,
                      int count);
};

}  // namespace dax::client
