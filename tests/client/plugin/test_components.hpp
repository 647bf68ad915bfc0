#pragma once

// Components made by the test plug-in. The test program includes this header too, so that it
// can look inside the components the plug-in built (the layout is shared, the code is not).

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <dax/client/components/client_component.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>

namespace client_test {

namespace msgpack = qor::serialization::msgpack;

/// Carries no data of its own (nil in the scene); its state is a position [x, y, z].
class Body : public dax::client::IClientComponent {
  public:
    Body(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}
    std::string getType() override { return "Body"; }
    void update_state(msgpack::ReadBuffer& in) override {
        std::vector<double> xyz;
        msgpack::read(in, xyz);
        if (xyz.size() == 3) position = {xyz[0], xyz[1], xyz[2]};
    }
    void extension1() override {}
    void extension2() override {}
    void serialize(std::vector<uint8_t>& out) override { out.push_back(0xc0); }
    void deserialize(msgpack::ReadBuffer& in) override {
        msgpack::skip(in);
        ++deserialized;
    }
    void onSceneLoaded() override { ++scene_loaded; }

    std::array<double, 3> position{};
    int deserialized = 0;
    int scene_loaded = 0;
};

/// Carries one integer, both in the scene and as its state.
class Counter : public dax::client::IClientComponent {
  public:
    Counter(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}
    std::string getType() override { return "Counter"; }
    void update_state(msgpack::ReadBuffer& in) override { msgpack::read(in, value); }
    void extension1() override {}
    void extension2() override {}
    void serialize(std::vector<uint8_t>& out) override { msgpack::pack(out, value); }
    void deserialize(msgpack::ReadBuffer& in) override { msgpack::read(in, value); }
    void onSceneLoaded() override { ++scene_loaded; }

    long long value = 0;
    int scene_loaded = 0;
};

}  // namespace client_test
