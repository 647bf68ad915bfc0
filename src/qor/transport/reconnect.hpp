#pragma once

#include <chrono>
#include <random>

namespace qor::transport {

/// When and how often a lost endpoint reopens by itself (never after an authentication failure).
struct ReconnectPolicy {
    bool enabled = false;                          ///< off: a lost endpoint stays down
    int max_retries = 10;                          ///< attempts per loss; 0 means no limit
    std::chrono::milliseconds initial_delay{250};  ///< wait before the first attempt
    double growth = 2.0;                           ///< each further wait is this much longer
    std::chrono::milliseconds max_delay{10000};    ///< waits never exceed this
    double jitter = 0.2;                           ///< each wait varies by up to this share
};

/// The wait before the attempt that follows `attempt` failed ones (0 after the loss itself):
/// `initial_delay * growth^attempt`, at most `max_delay`, then varied by up to `jitter` either
/// way with `rng`; never negative.
std::chrono::milliseconds next_delay(const ReconnectPolicy& policy, int attempt, std::mt19937& rng);

}  // namespace qor::transport
