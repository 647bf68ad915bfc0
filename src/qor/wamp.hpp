#pragma once

// WAMP messaging: the message model and its encoding, remote calls, subscriptions, endpoints
// with their sessions and connections, the receive side and the session openings. The in-memory connection for
// tests is <qor/wamp/testing/loopback.hpp>.
#include <qor/qor_client.hpp>
#include <qor/wamp/auth.hpp>
#include <qor/wamp/caller.hpp>
#include <qor/wamp/client.hpp>
#include <qor/wamp/connection.hpp>
#include <qor/wamp/details.hpp>
#include <qor/wamp/id.hpp>
#include <qor/wamp/incoming.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/opening.hpp>
#include <qor/wamp/receive.hpp>
#include <qor/wamp/rpc.hpp>
#include <qor/wamp/session.hpp>
#include <qor/wamp/subscriber.hpp>
