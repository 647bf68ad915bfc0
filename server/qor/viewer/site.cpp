#include <qor/viewer/site.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <qor/viewer/files.hpp>

namespace qor::viewer {

namespace {

transport::HttpResponse refusal(int status) {
    transport::HttpResponse r;
    r.status = status;
    r.body = status == 405   ? "method not allowed\n"
             : status == 400 ? "bad request\n"
                             : "not found\n";
    return r;
}

bool is_file(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_regular_file(path, ec);
}

}  // namespace

Site::Site(std::string folder) : folder_(std::move(folder)) {}

transport::HttpResponse Site::answer(const transport::HttpRequest& request) const {
    const FileRequest file = resolve(request.method, request.target);
    if (file.status != 200) return refusal(file.status);
    const std::string path = folder_ + "/" + file.path;
    std::ifstream in(path, std::ios::binary);
    if (!is_file(path) || !in) return refusal(404);
    std::ostringstream body;
    body << in.rdbuf();
    transport::HttpResponse r;
    r.status = 200;
    r.content_type = file.content_type;
    r.body = body.str();
    return r;
}

std::string find_viewer_folder(const std::string& executable_folder) {
    for (const char* relative : {"/viewer", "/../share/qor_sdk_cpp/viewer"}) {
        const std::string folder = executable_folder + relative;
        if (is_file(folder + "/index.html")) return folder;
    }
    return "";
}

}  // namespace qor::viewer
