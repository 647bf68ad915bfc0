#include <qor/wamp/message.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <qor/serialization/msgpack/fixed.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/detail/layout.hpp>

namespace qor::wamp {

namespace detail {

namespace {
using E = Element;
constexpr Layout layouts[] = {
    {HELLO, "HELLO", 2, {E::realm, E::details}},
    {WELCOME, "WELCOME", 2, {E::session, E::details}},
    {ABORT, "ABORT", 2, {E::details, E::reason}},
    {CHALLENGE, "CHALLENGE", 2, {E::authmethod, E::details}},
    {AUTHENTICATE, "AUTHENTICATE", 2, {E::signature, E::details}},
    {GOODBYE, "GOODBYE", 2, {E::details, E::reason}},
    {ERROR, "ERROR", 5, {E::request_type, E::request, E::details, E::error, E::args}},
    {PUBLISH, "PUBLISH", 4, {E::request, E::details, E::topic, E::args}},
    {PUBLISHED, "PUBLISHED", 2, {E::request, E::publication}},
    {SUBSCRIBE, "SUBSCRIBE", 3, {E::request, E::details, E::topic}},
    {SUBSCRIBED, "SUBSCRIBED", 2, {E::request, E::subscription}},
    {UNSUBSCRIBE, "UNSUBSCRIBE", 2, {E::request, E::subscription}},
    {UNSUBSCRIBED, "UNSUBSCRIBED", 1, {E::request}},
    {EVENT, "EVENT", 4, {E::subscription, E::publication, E::details, E::args}},
    {CALL, "CALL", 4, {E::request, E::details, E::procedure, E::args}},
    {RESULT, "RESULT", 3, {E::request, E::details, E::args}},
    {REGISTER, "REGISTER", 3, {E::request, E::details, E::procedure}},
    {REGISTERED, "REGISTERED", 2, {E::request, E::registration}},
    {UNREGISTER, "UNREGISTER", 2, {E::request, E::registration}},
    {UNREGISTERED, "UNREGISTERED", 1, {E::request}},
    {INVOCATION, "INVOCATION", 4, {E::request, E::registration, E::details, E::args}},
    {YIELD, "YIELD", 3, {E::request, E::details, E::args}},
};
}  // namespace

const Layout* find_layout(uint32_t type) {
    for (const Layout& layout : layouts) {
        if (layout.type == type) return &layout;
    }
    return nullptr;
}

}  // namespace detail

bool is_known_type(uint32_t type) {
    return detail::find_layout(type) != nullptr;
}

const char* type_name(uint32_t type) {
    const detail::Layout* layout = detail::find_layout(type);
    return layout != nullptr ? layout->name : "UNKNOWN";
}

Message::Message(uint32_t code) : type(code) {}

Message::Message(uint32_t code, Id request_id, const std::string& uri) : type(code) {
    switch (code) {
        case CALL:
        case REGISTER:
            procedure = uri;
            break;
        case SUBSCRIBE:
            check_topic(uri);
            topic = uri;
            break;
        case PUBLISH:
            topic = uri;
            break;
        default:
            throw std::runtime_error(
                "WAMP message: a URI is given only to CALL, REGISTER, SUBSCRIBE or PUBLISH");
    }
    request = request_id;
}

void check_topic(const std::string& topic) {
    if (topic.compare(0, 4, "wamp") != 0) return;
    if (topic == "wamp.session.on_leave" || topic == "wamp.session.on_join") return;
    throw std::runtime_error("wamp topic '" + topic + "'invalid, cannot start with 'wamp'");
}

namespace {

namespace mp = serialization::msgpack;
using detail::Element;

// Sizes follow the codec's choice of forms; the writers below must agree with them byte for
// byte, since the block is allocated from the sum before anything is written.

uint64_t int_size(int32_t v) {
    if (v >= 0) return v <= 127 ? 1 : v <= 255 ? 2 : v <= 65535 ? 3 : 5;
    return v >= -32 ? 1 : v >= -127 ? 2 : v >= -32767 ? 3 : 5;
}

uint64_t id_size(Id id) {
    const uint64_t v = id.value();
    return v <= 127 ? 1 : v <= 255 ? 2 : v <= 65535 ? 3 : v <= 4294967295ULL ? 5 : 9;
}

uint64_t string_size(const std::string& s) {
    const uint64_t n = s.size();
    if (n < 32) return 1 + n;
    if (n < 256) return 2 + n;
    if (n < 65536) return 3 + n;
    if (n <= 4294967295ULL) return 5 + n;
    throw std::runtime_error("string too long");
}

uint64_t header_size(uint64_t count, const char* too_large) {
    if (count < 16) return 1;
    if (count <= 65535) return 3;
    if (count <= 4294967295ULL) return 5;
    throw std::runtime_error(too_large);
}

uint64_t details_size(const std::map<std::string, mp::buffer>& details) {
    uint64_t n = header_size(details.size(), "map too large");
    for (const auto& [key, value] : details) n += string_size(key) + value.size;
    return n;
}

// A `Trailing` argument, or none.
struct LastArg {
    Trailing value;
    bool present = false;
};

uint64_t args_size(const std::vector<mp::buffer>& args, const LastArg& last) {
    uint64_t n = header_size(args.size() + last.present, "array too large");
    for (const mp::buffer& arg : args) n += arg.size;
    return n + last.value.head_size + last.value.size;
}

uint8_t* put_int(uint8_t* p, int32_t v) {
    if (v >= 0) {
        if (v <= 127) return mp::put_u8(p, uint8_t(v));
        if (v <= 255) return mp::put_u8(mp::put_u8(p, 0xCC), uint8_t(v));
        if (v <= 65535) return mp::put_be16(mp::put_u8(p, 0xCD), uint16_t(v));
        return mp::put_be32(mp::put_u8(p, 0xCE), uint32_t(v));
    }
    if (v >= -32) return mp::put_u8(p, uint8_t(int8_t(v)));
    if (v >= -127) return mp::put_u8(mp::put_u8(p, 0xD0), uint8_t(int8_t(v)));
    if (v >= -32767) return mp::put_be16(mp::put_u8(p, 0xD1), uint16_t(int16_t(v)));
    return mp::put_be32(mp::put_u8(p, 0xD2), uint32_t(v));
}

uint8_t* put_id(uint8_t* p, Id id) {
    const uint64_t v = id.value();
    if (v <= 127) return mp::put_u8(p, uint8_t(v));
    if (v <= 255) return mp::put_u8(mp::put_u8(p, 0xCC), uint8_t(v));
    if (v <= 65535) return mp::put_be16(mp::put_u8(p, 0xCD), uint16_t(v));
    if (v <= 4294967295ULL) return mp::put_be32(mp::put_u8(p, 0xCE), uint32_t(v));
    return mp::put_be64(mp::put_u8(p, 0xCF), v);
}

uint8_t* put_bytes(uint8_t* p, const uint8_t* bytes, uint64_t n) {
    if (n != 0) std::memcpy(p, bytes, n);
    return p + n;
}

uint8_t* put_string(uint8_t* p, const std::string& s) {
    const uint64_t n = s.size();
    if (n < 32) {
        p = mp::put_u8(p, uint8_t(0xA0 | n));
    } else if (n < 256) {
        p = mp::put_u8(mp::put_u8(p, 0xD9), uint8_t(n));
    } else if (n < 65536) {
        p = mp::put_be16(mp::put_u8(p, 0xDA), uint16_t(n));
    } else {
        p = mp::put_be32(mp::put_u8(p, 0xDB), uint32_t(n));
    }
    return put_bytes(p, reinterpret_cast<const uint8_t*>(s.data()), n);
}

uint8_t* put_header(uint8_t* p, uint64_t count, uint8_t fix, uint8_t form16, uint8_t form32) {
    if (count < 16) return mp::put_u8(p, uint8_t(fix | count));
    if (count <= 65535) return mp::put_be16(mp::put_u8(p, form16), uint16_t(count));
    return mp::put_be32(mp::put_u8(p, form32), uint32_t(count));
}

const std::string& text_of(const Message& m, Element e) {
    switch (e) {
        case Element::realm:
            return m.realm;
        case Element::authmethod:
            return m.authmethod;
        case Element::signature:
            return m.signature;
        case Element::error:
            return m.error;
        case Element::reason:
            return m.reason;
        case Element::topic:
            return m.topic;
        default:
            return m.procedure;
    }
}

Id id_of(const Message& m, Element e) {
    switch (e) {
        case Element::session:
            return m.session;
        case Element::publication:
            return m.publication;
        case Element::subscription:
            return m.subscription;
        case Element::registration:
            return m.registration;
        default:
            return m.request;
    }
}

bool is_id(Element e) {
    return e == Element::session || e == Element::request || e == Element::publication ||
           e == Element::subscription || e == Element::registration;
}

uint64_t element_size(const Message& m, Element e, const LastArg& last) {
    if (e == Element::details) return details_size(m.details);
    if (e == Element::args) return m.args.empty() && !last.present ? 0 : args_size(m.args, last);
    if (e == Element::request_type) return int_size(m.request_type);
    if (is_id(e)) return id_size(id_of(m, e));
    return string_size(text_of(m, e));
}

uint8_t* put_element(uint8_t* p, const Message& m, Element e, const LastArg& last) {
    if (e == Element::details) {
        p = put_header(p, m.details.size(), 0x80, 0xDE, 0xDF);
        for (const auto& [key, value] : m.details) {
            p = put_bytes(put_string(p, key), value.data, value.size);
        }
        return p;
    }
    if (e == Element::args) {
        if (m.args.empty() && !last.present) return p;
        p = put_header(p, m.args.size() + last.present, 0x90, 0xDC, 0xDD);
        for (const mp::buffer& arg : m.args) p = put_bytes(p, arg.data, arg.size);
        p = put_bytes(p, last.value.head, last.value.head_size);
        return put_bytes(p, last.value.data, last.value.size);
    }
    if (e == Element::request_type) return put_int(p, m.request_type);
    if (is_id(e)) return put_id(p, id_of(m, e));
    return put_string(p, text_of(m, e));
}

// The size and the encoding of `message`, with `last` after its arguments when present.
uint64_t serialized_size(const Message& message, const LastArg& last) {
    const detail::Layout* layout = detail::find_layout(message.type);
    if (layout == nullptr) throw std::runtime_error("Wamp message serialize : unkown message type");

    uint64_t total = 1 + int_size(static_cast<int32_t>(message.type));
    for (uint8_t i = 0; i < layout->count; ++i)
        total += element_size(message, layout->elements[i], last);
    return total;
}

void serialize_into(const Message& message, uint8_t* out, const LastArg& last) {
    const detail::Layout* layout = detail::find_layout(message.type);
    if (layout == nullptr) throw std::runtime_error("Wamp message serialize : unkown message type");

    uint64_t elements = 1;
    for (uint8_t i = 0; i < layout->count; ++i)
        if (layout->elements[i] != Element::args || !message.args.empty() || last.present)
            ++elements;
    uint8_t* p = mp::put_fixarray(out, uint8_t(elements));
    p = put_int(p, static_cast<int32_t>(message.type));
    for (uint8_t i = 0; i < layout->count; ++i)
        p = put_element(p, message, layout->elements[i], last);
}

}  // namespace

uint64_t serialized_size(const Message& message) {
    return serialized_size(message, LastArg{});
}

void serialize_into(const Message& message, uint8_t* out) {
    serialize_into(message, out, LastArg{});
}

mp::buffer serialize(const Message& message) {
    mp::buffer block(serialized_size(message));
    serialize_into(message, block.data);
    return block;
}

mp::buffer serialize(const Message& message, const uint8_t* arg, uint64_t size) {
    const LastArg last{Trailing::encoded(arg, size), true};
    mp::buffer block(serialized_size(message, last));
    serialize_into(message, block.data, last);
    return block;
}

Trailing Trailing::encoded(const uint8_t* data, uint64_t size) {
    Trailing t;
    t.data = data;
    t.size = size;
    return t;
}

Trailing Trailing::binary(const uint8_t* data, uint64_t size) {
    std::vector<uint8_t> head;
    mp::pack_bin_header(head, size);
    Trailing t = encoded(data, size);
    std::copy(head.begin(), head.end(), t.head);
    t.head_size = uint8_t(head.size());
    return t;
}

uint64_t serialized_size(const Message& message, const Trailing& last) {
    return serialized_size(message, LastArg{last, true});
}

void serialize_into(const Message& message, const Trailing& last, uint8_t* out) {
    serialize_into(message, out, LastArg{last, true});
}

uint64_t print_limit = 10;

namespace {

// Deep enough for any message this library builds; hostile nesting must not exhaust the stack.
constexpr int max_print_depth = 256;

void print_value(mp::ReadBuffer& in, uint64_t limit, std::string& out, int depth);

void print_members(mp::ReadBuffer& in, uint64_t count, bool map, uint64_t limit, std::string& out,
                   int depth) {
    // Only the shown members are read: what follows a shortened container is then read from
    // the wrong place. The log text has always behaved so.
    const uint64_t shown = (limit == 0 || count <= limit) ? count : limit;
    out += map ? '{' : '[';
    for (uint64_t i = 0; i < shown; ++i) {
        if (i != 0) out += ", ";
        print_value(in, limit, out, depth + 1);
        if (map) {
            out += ':';
            print_value(in, limit, out, depth + 1);
        }
    }
    if (shown < count) out += ", ... (size=" + std::to_string(count) + ")";
    out += map ? '}' : ']';
}

void print_value(mp::ReadBuffer& in, uint64_t limit, std::string& out, int depth) {
    if (depth > max_print_depth) throw std::runtime_error("print : nesting too deep");
    if (in.remaining() == 0) throw std::runtime_error("unexpected end of data");
    const uint8_t b = *in.current();
    if (b == 0xC0) {
        out += "nil";
        ++in.position;
    } else if (b == 0xC2 || b == 0xC3) {
        out += b == 0xC3 ? "true" : "false";
        ++in.position;
    } else if (b <= 0x7F || b >= 0xE0 || (b >= 0xCC && b <= 0xD3)) {
        long long v = 0;
        mp::read(in, v);
        out += std::to_string(v);
    } else if (b == 0xCA) {
        float v = 0;
        mp::read(in, v);
        std::ostringstream text;
        text << v;
        out += text.str() + "f";
    } else if (b == 0xCB) {
        double v = 0;
        mp::read(in, v);
        std::ostringstream text;
        text << v;
        out += text.str() + "d";
    } else if ((b >= 0xA0 && b <= 0xBF) || (b >= 0xD9 && b <= 0xDB)) {
        std::string v;
        mp::read(in, v);
        out += '"' + v + '"';
    } else if (b >= 0xC4 && b <= 0xC6) {
        mp::buffer v;
        mp::read(in, v);
        out += "bin(" + std::to_string(v.size) + ")";
    } else if ((b >= 0x90 && b <= 0x9F) || b == 0xDC || b == 0xDD) {
        print_members(in, mp::read_array_header(in), false, limit, out, depth);
    } else if ((b >= 0x80 && b <= 0x8F) || b == 0xDE || b == 0xDF) {
        print_members(in, mp::read_map_header(in), true, limit, out, depth);
    }
    // ext forms and the never-used 0xC1 print nothing and consume nothing.
}

}  // namespace

std::string print(const uint8_t* data, uint64_t size, uint64_t limit) {
    mp::ReadBuffer in(data, size);
    std::string out;
    print_value(in, limit, out, 0);
    return out;
}

namespace {

// The number of bytes of the one value at `data`, reading only bytes that belong to it: the
// codec's readers may load whole words within the size they are given, so a value whose size
// is unknown must be measured before it is handed to them.
uint64_t value_extent(const uint8_t* data) {
    uint64_t pos = 0;
    uint64_t pending = 1;
    auto big_endian = [data, &pos](int bytes) {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v = v << 8 | data[pos + i];
        pos += bytes;
        return v;
    };
    while (pending > 0) {
        --pending;
        const uint8_t b = data[pos++];
        if (b <= 0x7F || b >= 0xE0 || (b >= 0xC0 && b <= 0xC3)) continue;
        if (b <= 0x8F) {
            pending += 2 * uint64_t(b & 0x0F);
        } else if (b <= 0x9F) {
            pending += b & 0x0F;
        } else if (b <= 0xBF) {
            pos += b & 0x1F;
        } else {
            switch (b) {
                case 0xC4:
                case 0xD9:
                    pos += big_endian(1);
                    break;
                case 0xC5:
                case 0xDA:
                    pos += big_endian(2);
                    break;
                case 0xC6:
                case 0xDB:
                    pos += big_endian(4);
                    break;
                case 0xC7:
                    pos += big_endian(1) + 1;
                    break;
                case 0xC8:
                    pos += big_endian(2) + 1;
                    break;
                case 0xC9:
                    pos += big_endian(4) + 1;
                    break;
                case 0xCC:
                case 0xD0:
                    pos += 1;
                    break;
                case 0xCD:
                case 0xD1:
                    pos += 2;
                    break;
                case 0xCA:
                case 0xCE:
                case 0xD2:
                    pos += 4;
                    break;
                case 0xCB:
                case 0xCF:
                case 0xD3:
                    pos += 8;
                    break;
                case 0xD4:
                    pos += 2;
                    break;
                case 0xD5:
                    pos += 3;
                    break;
                case 0xD6:
                    pos += 5;
                    break;
                case 0xD7:
                    pos += 9;
                    break;
                case 0xD8:
                    pos += 17;
                    break;
                case 0xDC:
                    pending += big_endian(2);
                    break;
                case 0xDD:
                    pending += big_endian(4);
                    break;
                case 0xDE:
                    pending += 2 * big_endian(2);
                    break;
                case 0xDF:
                    pending += 2 * big_endian(4);
                    break;
                default:
                    break;
            }
        }
    }
    return pos;
}

}  // namespace

std::string print(const uint8_t* data, uint64_t limit) {
    // The caller vouches that one complete value starts at `data`.
    return print(data, value_extent(data), limit);
}

}  // namespace qor::wamp
