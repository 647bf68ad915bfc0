#pragma once

// Real transports: WAMP over RawSocket and WebSocket (optionally TLS) for the client, the
// server side of both framings, the RawSocket framing itself and the wampcra helpers.
#include <qor/transport/auth.hpp>
#include <qor/transport/connect.hpp>
#include <qor/transport/rawsocket.hpp>
#include <qor/transport/server.hpp>
#include <qor/transport/url.hpp>
