#include <qor/transport/reconnect.hpp>

#include <algorithm>
#include <cmath>

namespace qor::transport {

std::chrono::milliseconds next_delay(const ReconnectPolicy& policy, int attempt,
                                     std::mt19937& rng) {
    double ms = double(policy.initial_delay.count()) * std::pow(policy.growth, attempt);
    ms = std::min(ms, double(policy.max_delay.count()));
    if (policy.jitter > 0) {
        std::uniform_real_distribution<double> spread(-policy.jitter, policy.jitter);
        ms *= 1.0 + spread(rng);
    }
    return std::chrono::milliseconds(std::max<long long>(0, static_cast<long long>(ms)));
}

}  // namespace qor::transport
