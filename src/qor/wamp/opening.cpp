#include <qor/wamp/opening.hpp>

#include <exception>
#include <random>
#include <utility>

#include <qor/wamp/auth.hpp>
#include <qor/wamp/details.hpp>
#include <qor/wamp/id.hpp>

namespace qor::wamp {

namespace {

bool is_auth_refusal(const std::string& reason) {
    return reason == "wamp.error.authentication_failed" || reason == "wamp.error.not_authorized" ||
           reason == "wamp.error.no_auth_method" || reason == "wamp.error.authorization_failed";
}

std::string json_escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) continue;
        out += c;
    }
    return out;
}

uint64_t thread_random() {
    // The client's Id::Random is for the pumping thread only; the router draws on its own.
    static thread_local std::mt19937_64 engine{std::random_device{}()};
    return engine();
}

}  // namespace

// ---- client ---------------------------------------------------------------------------------

ClientOpening::ClientOpening(ClientCredentials credentials)
    : credentials_(std::move(credentials)) {}

Message ClientOpening::hello() const {
    Message m(HELLO);
    m.realm = credentials_.realm;
    set_detail(m, "agent", std::string("qor_sdk_cpp"));
    set_roles(m, {"caller", "subscriber"});
    if (!credentials_.authid.empty()) set_detail(m, "authid", credentials_.authid);
    if (!credentials_.authmethods.empty()) set_detail(m, "authmethods", credentials_.authmethods);
    return m;
}

std::vector<Message> ClientOpening::fail(std::string cause) {
    stage_ = Stage::failed;
    failure_ = std::move(cause);
    return {};
}

std::vector<Message> ClientOpening::receive(const Message& m) {
    if (stage_ != Stage::hello) return {};
    try {
        if (m.type == WELCOME) {
            session_ = m.session.value();
            stage_ = Stage::established;
            return {};
        }
        if (m.type == ABORT) {
            const std::string text = detail_text(m, "message");
            auth_refused_ = is_auth_refusal(m.reason);
            return fail("session refused: " + m.reason + (text.empty() ? "" : " (" + text + ")"));
        }
        if (m.type != CHALLENGE)
            return fail(std::string("protocol error: ") + type_name(m.type) + " before WELCOME");
        Message reply(AUTHENTICATE);
        if (m.authmethod == "ticket" && !credentials_.ticket.empty()) {
            reply.signature = credentials_.ticket;
        } else if (m.authmethod == "wampcra" && !credentials_.secret.empty()) {
            std::string key = credentials_.secret;
            const std::string salt = detail_text(m, "salt");
            if (!salt.empty())
                key = wampcra_derive_key(credentials_.secret, salt,
                                         int(detail_integer(m, "iterations", 1000)),
                                         int(detail_integer(m, "keylen", 32)));
            reply.signature = wampcra_sign(key, detail_text(m, "challenge"));
        } else {
            Message abort(ABORT);
            abort.reason = "wamp.error.no_auth_method";
            auth_refused_ = true;
            fail("authentication method '" + m.authmethod + "' requested without a secret for it");
            return {abort};
        }
        return {reply};
    } catch (const std::exception& e) {
        // Details of the wrong type, or wampcra parameters no key can be derived with.
        return fail(std::string("protocol error: ") + e.what());
    }
}

// ---- router ---------------------------------------------------------------------------------

RouterOpening::RouterOpening(std::string realm, std::vector<Credential> credentials, Random random)
    : realm_(std::move(realm)),
      credentials_(std::move(credentials)),
      random_(random ? std::move(random) : Random(thread_random)) {}

uint64_t RouterOpening::new_session_id() {
    return 1 + random_() % max_id;
}

std::vector<Message> RouterOpening::receive(const Message& m) {
    switch (stage_) {
        case Stage::hello:
            return hello(m);
        case Stage::challenged:
            return authenticate(m);
        default:
            return {};
    }
}

Message RouterOpening::refuse(const std::string& reason, const std::string& text) {
    stage_ = Stage::refused;
    refusal_reason_ = reason;
    refusal_text_ = text;
    Message abort(ABORT);
    abort.reason = reason;
    set_detail(abort, "message", text);
    return abort;
}

std::vector<Message> RouterOpening::refused(const std::string& reason, const std::string& text) {
    return {refuse(reason, text)};
}

std::vector<Message> RouterOpening::hello(const Message& m) {
    if (m.type != HELLO)
        return refused("wamp.error.protocol_violation",
                       std::string("expected HELLO, got ") + type_name(m.type));
    if (m.realm != realm_) return refused("wamp.error.no_such_realm", "no realm '" + m.realm + "'");
    if (credentials_.empty()) {
        authrole_ = "anonymous";
        authmethod_ = "anonymous";
        return welcome();
    }
    std::string authid;
    std::vector<std::string> methods;
    try {
        authid = detail_text(m, "authid");
        methods = detail_list(m, "authmethods");
    } catch (const std::exception& e) {
        return refused("wamp.error.protocol_violation",
                       std::string("bad HELLO details: ") + e.what());
    }
    const Credential* credential = nullptr;
    for (const auto& c : credentials_)
        if (c.authid == authid) credential = &c;
    if (!credential) return refused("wamp.error.not_authorized", "unknown authid '" + authid + "'");
    authid_ = authid;
    authrole_ = credential->authrole;
    if (credential->ticket.empty() && credential->wampcra_secret.empty()) {
        authmethod_ = "anonymous";
        return welcome();
    }
    for (const auto& method : methods) {
        if (method == "ticket" && !credential->ticket.empty()) {
            authmethod_ = method;
            expected_signature_ = credential->ticket;
            Message challenge(CHALLENGE);
            challenge.authmethod = method;
            stage_ = Stage::challenged;
            return {challenge};
        }
        if (method == "wampcra" && !credential->wampcra_secret.empty())
            return challenge_wampcra(*credential);
    }
    return refused("wamp.error.no_auth_method",
                   "no offered authentication method is accepted for '" + authid + "'");
}

std::vector<Message> RouterOpening::challenge_wampcra(const Credential& c) {
    authmethod_ = "wampcra";
    // The challenge names the session, so its id is drawn now.
    session_ = new_session_id();
    static const char* digits = "0123456789abcdef";
    std::string nonce;
    for (int i = 0; i < 32; ++i) nonce += digits[random_() % 16];
    const std::string text = "{\"authid\":\"" + json_escape(c.authid) + "\",\"authrole\":\"" +
                             json_escape(c.authrole) +
                             "\",\"authmethod\":\"wampcra\",\"authprovider\":\"static\","
                             "\"nonce\":\"" +
                             nonce + "\",\"session\":" + std::to_string(session_) + "}";
    Message challenge(CHALLENGE);
    challenge.authmethod = "wampcra";
    set_detail(challenge, "challenge", text);
    std::string key = c.wampcra_secret;
    if (!c.wampcra_salt.empty()) {
        key = wampcra_derive_key(c.wampcra_secret, c.wampcra_salt, c.wampcra_iterations,
                                 c.wampcra_keylen);
        set_detail(challenge, "salt", c.wampcra_salt);
        set_detail(challenge, "iterations", c.wampcra_iterations);
        set_detail(challenge, "keylen", c.wampcra_keylen);
    }
    expected_signature_ = wampcra_sign(key, text);
    stage_ = Stage::challenged;
    return {challenge};
}

std::vector<Message> RouterOpening::authenticate(const Message& m) {
    if (m.type != AUTHENTICATE)
        return refused("wamp.error.protocol_violation",
                       std::string("expected AUTHENTICATE, got ") + type_name(m.type));
    if (!equal_constant_time(m.signature, expected_signature_))
        return refused("wamp.error.authentication_failed",
                       "wrong " + authmethod_ + " secret for '" + authid_ + "'");
    return welcome();
}

std::vector<Message> RouterOpening::welcome() {
    if (session_ == 0) session_ = new_session_id();
    Message w(WELCOME);
    w.session = Id(session_);
    set_detail(w, "authid", authid_);
    set_detail(w, "authrole", authrole_);
    set_detail(w, "authmethod", authmethod_);
    set_roles(w, {"broker", "dealer"});
    stage_ = Stage::joined;
    return {w};
}

}  // namespace qor::wamp
