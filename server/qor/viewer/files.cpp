#include <qor/viewer/files.hpp>

#include <cstddef>
#include <utility>

namespace qor::viewer {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One decoding pass only: "%252e" stays "%2e" and is then refused as a literal '%'.
bool percent_decode(const std::string& in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size()) return false;
        const int hi = hex_digit(in[i + 1]);
        const int lo = hex_digit(in[i + 2]);
        if (hi < 0 || lo < 0) return false;
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return true;
}

const char* content_type_of(const std::string& name) {
    static const std::pair<const char*, const char*> kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".png", "image/png"},
        {".svg", "image/svg+xml"},
        {".ico", "image/x-icon"},
    };
    for (const auto& [ext, type] : kTypes) {
        const std::string e = ext;
        if (name.size() > e.size() && name.compare(name.size() - e.size(), e.size(), e) == 0)
            return type;
    }
    return nullptr;
}

bool allowed_byte(unsigned char c) {
    // Letters, digits and the few marks our file names use; everything else (controls,
    // backslash, ':', '%', quotes, bytes of other scripts) is refused.
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '_' || c == '.' || c == '/';
}

}  // namespace

FileRequest resolve(const std::string& method, const std::string& target) {
    FileRequest r;
    if (method != "GET" && method != "HEAD") {
        r.status = 405;
        return r;
    }
    // Only the origin form: an absolute URL or "*" names no file of ours.
    if (target.empty() || target[0] != '/') {
        r.status = 400;
        return r;
    }
    std::string path = target.substr(0, target.find_first_of("?#"));
    std::string decoded;
    if (!percent_decode(path, decoded)) {
        r.status = 400;
        return r;
    }
    if (decoded == "/") decoded = "/index.html";
    for (unsigned char c : decoded)
        if (!allowed_byte(c)) return r;
    // Every segment must be a plain name: no "", "." or "..", and no hidden files.
    std::string relative = decoded.substr(1);
    size_t start = 0;
    while (start <= relative.size()) {
        size_t end = relative.find('/', start);
        if (end == std::string::npos) end = relative.size();
        if (end == start || relative[start] == '.') return r;
        start = end + 1;
    }
    const char* type = content_type_of(relative);
    if (!type) return r;
    r.status = 200;
    r.path = std::move(relative);
    r.content_type = type;
    return r;
}

}  // namespace qor::viewer
