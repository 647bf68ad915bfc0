// Builds against the installed package only: encodes a value with the codec and reads it back.
#include <qor/serialization/msgpack.hpp>

#include <cstdio>
#include <string>
#include <vector>

int main() {
    namespace mp = qor::serialization::msgpack;
    std::vector<uint8_t> out;
    mp::pack(out, std::string("consumer"));
    mp::buffer block(out);
    mp::ReadBuffer in(block);
    std::string text;
    mp::read(in, text);
    if (text != "consumer" || in.position != in.size) {
        std::fprintf(stderr, "round trip through the installed package failed\n");
        return 1;
    }
    std::printf("installed package works\n");
    return 0;
}
