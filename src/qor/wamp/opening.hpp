#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <qor/wamp/message.hpp>

// The two halves of the WAMP session opening as state machines without I/O: a received message
// goes in, the messages to send come out, and the stage says what happened. The transports
// only move their bytes.
namespace qor::wamp {

/// What the client offers when it opens a session.
struct ClientCredentials {
    std::string realm;                     ///< the realm to join
    std::string authid;                    ///< empty: not announced
    std::vector<std::string> authmethods;  ///< empty: not announced (anonymous)
    std::string ticket;                    ///< answers a "ticket" CHALLENGE
    std::string secret;                    ///< answers a "wampcra" CHALLENGE
};

/// The client half: HELLO, then an answer to each CHALLENGE, until WELCOME or ABORT.
///
/// Threading: a plain value; one thread at a time.
class ClientOpening {
  public:
    enum class Stage { hello, established, failed };

    explicit ClientOpening(ClientCredentials credentials);

    /// The HELLO that starts the opening: realm, agent, roles (caller, subscriber) and the
    /// authid and methods when set.
    Message hello() const;
    /// Handles one message received before WELCOME; returns what to send back (AUTHENTICATE,
    /// or ABORT when a CHALLENGE asks for a secret that is not set).
    std::vector<Message> receive(const Message& message);

    Stage stage() const { return stage_; }
    /// The session id WELCOME gave; 0 before.
    uint64_t session() const { return session_; }
    /// Why the opening failed ("session refused: <reason> (<message>)", ...); empty otherwise.
    const std::string& failure() const { return failure_; }
    /// True when it failed on credentials, so retrying with the same ones is pointless.
    bool auth_refused() const { return auth_refused_; }

  private:
    std::vector<Message> fail(std::string cause);

    ClientCredentials credentials_;
    Stage stage_ = Stage::hello;
    uint64_t session_ = 0;
    std::string failure_;
    bool auth_refused_ = false;
};

/// What the router accepts from one authid. A credential with neither secret set lets that
/// authid join without a challenge.
struct Credential {
    std::string authid;             ///< the HELLO authid this entry answers
    std::string authrole = "user";  ///< announced in WELCOME
    std::string ticket;             ///< accepted "ticket" secret; empty: ticket not offered
    std::string wampcra_secret;     ///< "wampcra" secret; empty: wampcra not offered
    std::string wampcra_salt;       ///< non-empty: the key is derived with PBKDF2-HMAC-SHA256
    int wampcra_iterations = 1000;  ///< PBKDF2 iterations for a salted secret
    int wampcra_keylen = 32;        ///< PBKDF2 key length in bytes for a salted secret
};

/// The router half: checks HELLO's realm and credentials, challenges (ticket or wampcra),
/// checks AUTHENTICATE, and answers WELCOME (roles broker and dealer) or ABORT.
///
/// Threading: a plain value; one thread at a time.
class RouterOpening {
  public:
    enum class Stage { hello, challenged, joined, refused };
    /// A source of random 64-bit values, for session ids and challenge nonces.
    using Random = std::function<uint64_t()>;

    /// `credentials` empty: anyone joins anonymously. `random` empty: a generator of the
    /// calling thread.
    RouterOpening(std::string realm, std::vector<Credential> credentials, Random random = {});

    /// Handles one message received before WELCOME; returns what to send back (CHALLENGE,
    /// WELCOME or ABORT).
    std::vector<Message> receive(const Message& message);
    /// Ends the opening with ABORT `reason` and the detail "message" `text` (for a peer whose
    /// bytes were no WAMP message, for instance).
    Message refuse(const std::string& reason, const std::string& text);

    Stage stage() const { return stage_; }
    uint64_t session() const { return session_; }              ///< set with WELCOME
    const std::string& authid() const { return authid_; }      ///< empty for anonymous
    const std::string& authrole() const { return authrole_; }  ///< "anonymous" for anonymous
    /// "anonymous", "ticket" or "wampcra".
    const std::string& authmethod() const { return authmethod_; }
    /// The ABORT reason and text when refused.
    const std::string& refusal_reason() const { return refusal_reason_; }
    const std::string& refusal_text() const { return refusal_text_; }

  private:
    std::vector<Message> hello(const Message& m);
    std::vector<Message> challenge_wampcra(const Credential& c);
    std::vector<Message> authenticate(const Message& m);
    std::vector<Message> welcome();
    std::vector<Message> refused(const std::string& reason, const std::string& text);
    uint64_t new_session_id();

    std::string realm_;
    std::vector<Credential> credentials_;
    Random random_;
    Stage stage_ = Stage::hello;
    uint64_t session_ = 0;
    std::string authid_, authrole_, authmethod_;
    std::string expected_signature_;
    std::string refusal_reason_, refusal_text_;
};

}  // namespace qor::wamp
