// Every dax::types record reader on arbitrary bytes. The first byte picks the record; a record
// that reads must write back to bytes that read to the same record (one more write and read
// gives the same bytes), so a reader that silently drops or invents data is caught too.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <vector>

#include <dax/types.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
using namespace dax::types;

template <class T>
void check(const uint8_t* data, size_t size) {
    mp::ReadBuffer in(data, size);
    T first{};
    try {
        read(in, first);
    } catch (const std::exception&) {
        return;  // refused with an error: that is all bad input may cause
    }
    if (in.position > size) std::abort();

    std::vector<uint8_t> once;
    pack(once, first);
    mp::ReadBuffer again(once.data(), once.size());
    T second{};
    read(again, second);  // our own bytes must read back: an exception here is a crash
    if (again.position != once.size()) std::abort();
    std::vector<uint8_t> twice;
    pack(twice, second);
    if (once != twice) std::abort();
}

using Reader = void (*)(const uint8_t*, size_t);
constexpr Reader kReaders[] = {
    check<integration_result_t>, check<mesh_batch_t>,    check<mesh_info_t>,
    check<vector_bool_t>,        check<vector_string_t>, check<vector_pair_string_double_t>,
    check<art_frame_t>,          check<kinect_frame_t>,  check<leap_frame_t>,
    check<moticon_frame_t>,      check<openvr_frame_t>,  check<optitrack_frame_t>,
    check<xsens_frame_t>,        check<pose7_t>,         check<vec3d_t>,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    kReaders[data[0] % (sizeof kReaders / sizeof kReaders[0])](data + 1, size - 1);
    return 0;
}
