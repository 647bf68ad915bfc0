#pragma once

#include <cstdint>

namespace qor::wamp {

/// Largest WAMP identifier, 2^53: ids must survive a trip through a double.
constexpr uint64_t max_id = 9007199254740992ULL;

/// An unsigned 64-bit WAMP identifier, checked to be at most 2^53. Plain value type.
class Id {
  public:
    /// Id 0, the value of every id field of a fresh message.
    Id() = default;
    /// Checked: above 2^53 raises "WAMP id too big".
    explicit Id(uint64_t value);
    /// Uniform over 1 ... 2^53; the process-wide generator is made on first use, without a lock.
    static Id Random();

    /// The number held.
    uint64_t value() const { return value_; }

    bool operator==(const Id& other) const { return value_ == other.value_; }
    bool operator!=(const Id& other) const { return value_ != other.value_; }
    bool operator<(const Id& other) const { return value_ < other.value_; }

  private:
    uint64_t value_ = 0;
};

}  // namespace qor::wamp
