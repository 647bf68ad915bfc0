#pragma once

#include <functional>
#include <string>

namespace qor::transport {

/// A plain HTTP request (no WebSocket upgrade) that reached a WebSocket listener.
struct HttpRequest {
    std::string method;  ///< "GET", "HEAD", ...
    std::string target;  ///< the request target as sent, e.g. "/index.html?x=1"
};

/// The answer to an `HttpRequest`; the connection closes once it is written.
struct HttpResponse {
    int status = 404;
    std::string content_type = "text/plain; charset=utf-8";
    std::string body;  ///< left out of the answer to HEAD, its length still announced
};

/// Answers plain HTTP requests on a WebSocket listener. Runs on the listener's I/O thread.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

}  // namespace qor::transport
