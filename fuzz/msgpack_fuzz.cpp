// skip and print on arbitrary MessagePack. skip must account for every byte it passes; print
// with a size must stay inside it; once skip has vouched for a complete value, the print that
// measures the value itself must give the same text as the one told its size.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/message.hpp>

namespace mp = qor::serialization::msgpack;

namespace {

// The text printed, or the error raised, so that two prints can be compared either way.
template <class Print>
std::string outcome(Print print) {
    try {
        return "text: " + print();
    } catch (const std::exception& e) {
        return std::string("error: ") + e.what();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint64_t limit = data[0] % 4 == 0 ? 0 : data[0] % 16;  // 0 prints every member
    const uint8_t* value = data + 1;
    const uint64_t length = size - 1;

    mp::ReadBuffer in(value, length);
    uint64_t skipped = 0;
    try {
        skipped = mp::skip(in);
    } catch (const std::exception&) {
        skipped = 0;
    }
    if (skipped != in.position || skipped > length) __builtin_trap();

    try {
        qor::wamp::print(value, length, limit);
    } catch (const std::exception&) {
        // a cut or over-deep value is refused with an error
    }
    if (skipped > 0) {
        // print(data, limit) trusts the value to be complete, which skip has just shown; a copy
        // of exactly its bytes makes any read past them visible to the address sanitizer.
        const std::vector<uint8_t> exact(value, value + skipped);
        const std::string measured = outcome([&] { return qor::wamp::print(exact.data(), limit); });
        const std::string told =
            outcome([&] { return qor::wamp::print(exact.data(), exact.size(), limit); });
        if (measured != told) __builtin_trap();
    }
    return 0;
}
