#pragma once

#include <memory>
#include <string>

// What the demo does differently per platform (demo_platform_posix.cpp, _windows.cpp).

/// True when standard output is a terminal (the progress line then redraws itself).
bool stdout_is_terminal();

// The server the demo starts itself when no --url is given. Only POSIX systems can: the
// reference server is a Linux program, so on Windows the demo explains that it needs --url.
class LocalServer {
  public:
    virtual ~LocalServer() = default;
    /// The RawSocket URL to connect to.
    virtual std::string url() const = 0;
    /// The WebSocket URL (the viewer is served on its port).
    virtual std::string websocket_url() const = 0;
    /// Waits for the server to exit after QUIT and cleans up; its exit code.
    virtual int finish() = 0;
};

/// Starts qor-sim-server from the demo's folder on free ports; throws when it cannot.
std::unique_ptr<LocalServer> start_local_server();
