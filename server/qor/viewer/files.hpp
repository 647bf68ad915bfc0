#pragma once

#include <string>

namespace qor::viewer {

/// Where a plain HTTP request for the viewer goes: a file under the viewer's folder, or a
/// refusal with its status.
struct FileRequest {
    int status = 404;          ///< 200: serve `path`; otherwise the answer's status
    std::string path;          ///< relative to the viewer's folder, '/'-separated; set on 200
    std::string content_type;  ///< set on 200
};

/// Maps a request's method and target ("/", "/lib/three.module.min.js?v=2") to a file of
/// the viewer's folder without touching the disk. The target is percent-decoded once; any
/// "." or ".." segment, empty segment, backslash, control byte or bad escape, an absolute
/// form ("http://...") and an unknown file type are refused, so nothing outside the folder
/// can be named. "/" is "index.html". Methods other than GET and HEAD get 405.
FileRequest resolve(const std::string& method, const std::string& target);

}  // namespace qor::viewer
