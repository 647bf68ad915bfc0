#include <dax/types/device_topics.hpp>

namespace dax::types {

std::vector<std::string> device_topics() {
    std::vector<std::string> out;
    for (const DeviceTopics& family : {kArtTopics, kLeapTopics, kOptitrackTopics, kXsensTopics,
                                       kKinectTopics, kOpenvrTopics, kMoticonTopics}) {
        if (family.count == 0) out.push_back(family.prefix);
        for (int id = 0; id < family.count; ++id) out.push_back(family.topic(id));
    }
    return out;
}

}  // namespace dax::types
