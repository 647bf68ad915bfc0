#include "demo_platform.hpp"

#include <cstdio>
#include <stdexcept>

#include <io.h>

bool stdout_is_terminal() {
    return ::_isatty(::_fileno(stdout)) != 0;
}

std::unique_ptr<LocalServer> start_local_server() {
    throw std::runtime_error(
        "on Windows the demo needs --url rs://HOST:PORT or ws://HOST:PORT of a running "
        "qor-sim-server (the server runs on Linux or in WSL)");
}
