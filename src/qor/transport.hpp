#pragma once

// Real transports: WAMP over RawSocket and WebSocket (optionally TLS) for the client, the
// RawSocket framing itself and the wampcra helpers. The accepting side is the separate
// router library (<qor/router/server.hpp>).
#include <qor/transport/auth.hpp>
#include <qor/transport/connect.hpp>
#include <qor/transport/rawsocket.hpp>
#include <qor/transport/reconnect.hpp>
#include <qor/transport/url.hpp>
