#include <qor/wamp/id.hpp>

#include <functional>
#include <random>
#include <stdexcept>

namespace qor::wamp {

Id::Id(uint64_t value) : value_(value) {
    if (value > max_id) throw std::runtime_error("WAMP id too big");
}

Id Id::Random() {
    // Created on first use and kept for the life of the process. Only the pumping thread
    // draws ids, so no lock guards the first use.
    static std::mt19937_64 engine{std::random_device{}()};
    static std::function<uint64_t()> draw =
        [distribution = std::uniform_int_distribution<uint64_t>(1, max_id)]() mutable {
            return distribution(engine);
        };
    return Id(draw());
}

}  // namespace qor::wamp
