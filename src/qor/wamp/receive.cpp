#include <qor/wamp/receive.hpp>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include <qor/serialization/msgpack/read.hpp>
#include <qor/wamp/detail/layout.hpp>

namespace qor::wamp {

namespace {

namespace mp = serialization::msgpack;
using detail::Element;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("WAMP message: " + what);
}

const char* element_name(Element e) {
    switch (e) {
        case Element::realm:
            return "realm";
        case Element::session:
            return "session";
        case Element::request:
            return "request";
        case Element::authmethod:
            return "authmethod";
        case Element::signature:
            return "signature";
        case Element::request_type:
            return "request type";
        case Element::error:
            return "error";
        case Element::reason:
            return "reason";
        case Element::topic:
            return "topic";
        case Element::publication:
            return "publication";
        case Element::subscription:
            return "subscription";
        case Element::procedure:
            return "procedure";
        case Element::registration:
            return "registration";
        case Element::details:
            return "details";
        case Element::args:
            return "arguments";
    }
    return "element";
}

// An id is an unsigned integer of at most 2^53; a negative or float value is refused.
Id read_id(mp::ReadBuffer& in) {
    if (in.remaining() != 0 && *in.current() == 0xCF) {
        uint64_t v = 0;
        mp::read(in, v);
        return Id(v);
    }
    long long v = 0;
    mp::read(in, v);
    if (v < 0) throw std::runtime_error("negative id");
    return Id(static_cast<uint64_t>(v));
}

// A dictionary's values stay encoded: each is skipped over and copied as its bytes.
void read_dict(mp::ReadBuffer& in, std::map<std::string, mp::buffer>& dict) {
    const uint64_t count = mp::read_map_header(in);
    for (uint64_t i = 0; i < count; ++i) {
        std::string key;
        mp::read(in, key);
        const uint64_t start = in.position;
        mp::skip(in);
        dict.insert_or_assign(std::move(key), mp::buffer(in.data + start, in.position - start));
    }
}

std::string* text_of(Message& m, Element e) {
    switch (e) {
        case Element::realm:
            return &m.realm;
        case Element::authmethod:
            return &m.authmethod;
        case Element::signature:
            return &m.signature;
        case Element::error:
            return &m.error;
        case Element::reason:
            return &m.reason;
        case Element::topic:
            return &m.topic;
        case Element::procedure:
            return &m.procedure;
        default:
            return nullptr;
    }
}

Id* id_of(Message& m, Element e) {
    switch (e) {
        case Element::session:
            return &m.session;
        case Element::request:
            return &m.request;
        case Element::publication:
            return &m.publication;
        case Element::subscription:
            return &m.subscription;
        case Element::registration:
            return &m.registration;
        default:
            return nullptr;
    }
}

void read_element(mp::ReadBuffer& in, Message& m, Element e) {
    if (e == Element::details) {
        read_dict(in, m.details);
    } else if (e == Element::request_type) {
        int v = 0;
        mp::read(in, v);
        m.request_type = v;
    } else if (Id* id = id_of(m, e)) {
        *id = read_id(in);
    } else if (std::string* text = text_of(m, e)) {
        mp::read(in, *text);
    }
}

void read_args(mp::ReadBuffer& in, Message& m) {
    m.args_count = mp::read_array_header(in);
    m.args_offset = in.position;
    for (uint64_t i = 0; i < m.args_count; ++i) mp::skip(in);
    m.args_end = in.position;
}

template <class Step>
void guarded(const char* name, Step step) {
    try {
        step();
    } catch (const std::exception& e) {
        fail(std::string("bad ") + name + ": " + e.what());
    }
}

}  // namespace

Message parse_message(mp::buffer bytes) {
    mp::ReadBuffer in(bytes);
    uint64_t elements = 0;
    guarded("message", [&] { elements = mp::read_array_header(in); });
    if (elements == 0) fail("empty array");

    long long code = 0;
    guarded("message type", [&] { mp::read(in, code); });
    const detail::Layout* layout =
        (code >= 0 && code <= 0xFFFFFFFFLL) ? detail::find_layout(uint32_t(code)) : nullptr;
    if (layout == nullptr) fail("unknown message type");

    Message m(layout->type);
    const bool has_args = layout->elements[layout->count - 1] == Element::args;
    const uint64_t fixed = 1 + layout->count - (has_args ? 1 : 0);
    // Arguments, then ArgumentsKw, may follow the fixed elements of the kinds that carry them.
    if (elements < fixed || elements > fixed + (has_args ? 2 : 0)) {
        fail(std::string("wrong number of elements for ") + layout->name);
    }
    for (uint64_t i = 1; i < fixed; ++i) {
        const Element e = layout->elements[i - 1];
        guarded(element_name(e), [&] { read_element(in, m, e); });
    }
    if (elements > fixed) guarded("arguments", [&] { read_args(in, m); });
    if (elements > fixed + 1) guarded("keyword arguments", [&] { read_dict(in, m.arguments_kw); });
    if (in.remaining() != 0) fail("trailing bytes after the message");

    m.raw = std::move(bytes);
    return m;
}

bool is_cancel(const uint8_t* data, size_t size) {
    mp::ReadBuffer in(data, size);
    try {
        if (mp::read_array_header(in) < 2) return false;
        long long code = 0;
        mp::read(in, code);
        return code == 49;
    } catch (const std::exception&) {
        return false;
    }
}

std::vector<mp::buffer> received_args(const Message& message) {
    std::vector<mp::buffer> args;
    if (message.args_count == 0) return args;
    mp::ReadBuffer in(message.raw);
    in.position = message.args_offset <= message.raw.size ? message.args_offset : message.raw.size;
    if (mp::affordable(in, message.args_count, sizeof(mp::buffer)))
        args.reserve(message.args_count);
    for (uint64_t i = 0; i < message.args_count; ++i) {
        const uint64_t start = in.position;
        mp::skip(in);
        args.emplace_back(in.data + start, in.position - start);
    }
    return args;
}

}  // namespace qor::wamp
