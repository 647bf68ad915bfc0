// Both halves of the session opening, bytes in and bytes out, without sockets. The expected
// bytes were written with an independent MessagePack encoder and Python's hmac/hashlib.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/testing.hpp"

using namespace qor::wamp;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

namespace {

// Messages written in hex, one after another, separated by '|'.
std::vector<std::vector<uint8_t>> hexes(const std::string& list) {
    std::vector<std::vector<uint8_t>> out;
    std::istringstream in(list);
    for (std::string one; std::getline(in, one, '|');) out.push_back(hex(one));
    return out;
}

// The bytes of what `opening` answers to each message of `received` (as hexes() reads it).
template <class Opening>
std::vector<std::vector<uint8_t>> replies_to(Opening& opening, const std::string& received) {
    std::vector<std::vector<uint8_t>> out;
    for (const auto& in : hexes(received))
        for (const Message& m : opening.receive(parse_message(mp::buffer(in))))
            out.push_back(bytes_of(serialize(m)));
    return out;
}

const char* const HELLO_ANONYMOUS =
    "93 01 A6 'realm1' 82 A5 'agent' AB 'qor_sdk_cpp' A5 'roles' 82 A6 'caller' 80 AA 'subscriber' "
    "80";
const char* const HELLO_ALICE =
    "93 01 A6 'realm1' 84 A5 'agent' AB 'qor_sdk_cpp' A6 'authid' A5 'alice' AB 'authmethods' 92 "
    "A6 'ticket' A7 'wampcra' A5 'roles' 82 A6 'caller' 80 AA 'subscriber' 80";

}  // namespace

// ---- client ---------------------------------------------------------------------------------

TEST(ClientOpening, HelloAnnouncesRolesAndCredentialsWhenSet) {
    ClientCredentials anonymous;
    anonymous.realm = "realm1";
    EXPECT_EQ(bytes_of(serialize(ClientOpening(anonymous).hello())), hex(HELLO_ANONYMOUS));

    ClientCredentials alice = anonymous;
    alice.authid = "alice";
    alice.authmethods = {"ticket", "wampcra"};
    alice.ticket = "t1";
    EXPECT_EQ(bytes_of(serialize(ClientOpening(alice).hello())), hex(HELLO_ALICE));
}

TEST(ClientOpening, EachReceivedMessageGivesItsRepliesAndStage) {
    using Stage = ClientOpening::Stage;
    struct Row {
        const char* name;
        std::string ticket, secret;
        std::string received, replies;  // hex, messages separated by '|'
        Stage stage;
        std::string failure;
        bool auth_refused;
    };
    const Row rows[] = {
        {"welcome", "", "", "93 02 07 80", "", Stage::established, "", false},
        {"ticket", "t1", "", "93 04 A6 'ticket' 80 | 93 02 07 80", "93 05 A2 74 31 80",
         Stage::established, "", false},
        {"wampcra", "", "s2", "93 04 A7 'wampcra' 81 A9 'challenge' A5 'hello'",
         "93 05 D9 2C 'mRZqamDr/sU9fuQelQQeEpPiUPRYJqtEm/VG91kNu9k=' 80", Stage::hello, "", false},
        {"wampcra with a salted key", "", "s2",
         "93 04 A7 'wampcra' 84 A9 'challenge' A5 'hello' AA 'iterations' 02 A6 'keylen' 10 A4 "
         "'salt' A6 'pepper'",
         "93 05 D9 2C 'btVahlxux0HSCYtofT1E3YKISJeARoz2gZsoRbmP3Eg=' 80", Stage::hello, "", false},
        {"challenge without the secret", "", "", "93 04 A6 'ticket' 80",
         "93 03 80 B9 'wamp.error.no_auth_method'", Stage::failed,
         "authentication method 'ticket' requested without a secret for it", true},
        {"refused on credentials", "", "",
         "93 03 81 A7 'message' A2 6E 6F B9 'wamp.error.not_authorized'", "", Stage::failed,
         "session refused: wamp.error.not_authorized (no)", true},
        {"refused otherwise", "", "", "93 03 80 B8 'wamp.error.no_such_realm'", "", Stage::failed,
         "session refused: wamp.error.no_such_realm", false},
        {"anything else first", "", "", "93 32 01 80", "", Stage::failed,
         "protocol error: RESULT before WELCOME", false},
        // The decoder's text follows "protocol error: ".
        {"a salt that is no string", "", "s2",
         "93 04 A7 'wampcra' 82 A9 'challenge' A5 'hello' A4 'salt' 05", "", Stage::failed, "",
         false},
        {"nothing after the end", "", "", "93 02 07 80 | 93 04 A6 'ticket' 80", "",
         Stage::established, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ClientCredentials c;
        c.realm = "realm1";
        c.ticket = row.ticket;
        c.secret = row.secret;
        ClientOpening opening(c);
        EXPECT_EQ(replies_to(opening, row.received), hexes(row.replies));
        EXPECT_EQ(opening.stage(), row.stage);
        if (row.stage == Stage::failed && row.failure.empty())
            EXPECT_EQ(opening.failure().rfind("protocol error: ", 0), 0u) << opening.failure();
        else
            EXPECT_EQ(opening.failure(), row.failure);
        EXPECT_EQ(opening.auth_refused(), row.auth_refused);
        EXPECT_EQ(opening.session(), row.stage == Stage::established ? 7u : 0u);
    }
}

// ---- router ---------------------------------------------------------------------------------

namespace {

// Random values 41, 42, 43...: the first session id drawn is 42, a nonce reads
// "abcdef0123456789...".
RouterOpening::Random counting() {
    auto next = std::make_shared<uint64_t>(41);
    return [next] { return (*next)++; };
}

std::vector<Credential> credentials() {
    Credential alice;
    alice.authid = "alice";
    alice.ticket = "t1";
    Credential bob;  // no secret: joins without a challenge
    bob.authid = "bob";
    bob.authrole = "guest";
    Credential carol;
    carol.authid = "carol";
    carol.wampcra_secret = "s3";
    carol.wampcra_salt = "nacl";
    carol.wampcra_iterations = 3;
    carol.wampcra_keylen = 20;
    return {alice, bob, carol};
}

}  // namespace

TEST(RouterOpening, EachReceivedMessageGivesItsRepliesAndStage) {
    using Stage = RouterOpening::Stage;
    const std::string hello_alice_ticket =
        "93 01 A6 'realm1' 82 A6 'authid' A5 'alice' AB 'authmethods' 91 A6 'ticket'";
    const std::string challenge_ticket = "93 04 A6 'ticket' 80";
    struct Row {
        const char* name;
        bool with_credentials;
        Stage stage;
        std::string authid, authrole, authmethod;
        std::string received, replies;  // hex, messages separated by '|'
    };
    const Row rows[] = {
        {"anonymous", false, Stage::joined, "", "anonymous", "anonymous", HELLO_ANONYMOUS,
         "93 02 2A 84 A6 'authid' A0 AA 'authmethod' A9 'anonymous' A8 'authrole' A9 'anonymous' "
         "A5 'roles' 82 A6 'broker' 80 A6 'dealer' 80"},
        {"another realm", false, Stage::refused, "", "", "", "93 01 A5 'other' 80",
         "93 03 81 A7 'message' B0 'no realm ' 27 'other' 27 B8 'wamp.error.no_such_realm'"},
        {"no HELLO first", false, Stage::refused, "", "", "", "94 30 01 80 A1 70",
         "93 03 81 A7 'message' B8 'expected HELLO, got CALL' BD 'wamp.error.protocol_violation'"},
        {"unknown authid", true, Stage::refused, "", "", "",
         "93 01 A6 'realm1' 82 A6 'authid' A3 'eve' AB 'authmethods' 91 A6 'ticket'",
         "93 03 81 A7 'message' B4 'unknown authid ' 27 'eve' 27 B9 'wamp.error.not_authorized'"},
        {"no accepted method", true, Stage::refused, "alice", "user", "",
         "93 01 A6 'realm1' 82 A6 'authid' A5 'alice' AB 'authmethods' 91 A7 'wampcra'",
         "93 03 81 A7 'message' D9 38 'no offered authentication method is accepted for ' 27 "
         "'alice' 27 B9 'wamp.error.no_auth_method'"},
        {"ticket challenged", true, Stage::challenged, "alice", "user", "ticket",
         hello_alice_ticket, challenge_ticket},
        {"ticket accepted", true, Stage::joined, "alice", "user", "ticket",
         hello_alice_ticket + " | 93 05 A2 74 31 80",
         challenge_ticket + " | " +
             "93 02 2A 84 A6 'authid' A5 'alice' AA 'authmethod' A6 'ticket' A8 'authrole' A4 "
             "'user' A5 'roles' 82 A6 'broker' 80 A6 'dealer' 80"},
        {"wrong ticket", true, Stage::refused, "alice", "user", "ticket",
         hello_alice_ticket + " | 93 05 A4 'nope' 80",
         challenge_ticket + " | " +
             "93 03 81 A7 'message' BF 'wrong ticket secret for ' 27 'alice' 27 D9 20 "
             "'wamp.error.authentication_failed'"},
        {"no AUTHENTICATE after the challenge", true, Stage::refused, "alice", "user", "ticket",
         hello_alice_ticket + " | " + hello_alice_ticket,
         challenge_ticket + " | " +
             "93 03 81 A7 'message' D9 20 'expected AUTHENTICATE, got HELLO' BD "
             "'wamp.error.protocol_violation'"},
        {"credential without a secret", true, Stage::joined, "bob", "guest", "anonymous",
         "93 01 A6 'realm1' 81 A6 'authid' A3 'bob'",
         "93 02 2A 84 A6 'authid' A3 'bob' AA 'authmethod' A9 'anonymous' A8 'authrole' A5 'guest' "
         "A5 'roles' 82 A6 'broker' 80 A6 'dealer' 80"},
    };
    const std::vector<Credential> none, some = credentials();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        RouterOpening opening("realm1", row.with_credentials ? some : none, counting());
        EXPECT_EQ(replies_to(opening, row.received), hexes(row.replies));
        EXPECT_EQ(opening.stage(), row.stage);
        EXPECT_EQ(opening.session(), row.stage == Stage::joined ? 42u : 0u);
        EXPECT_EQ(opening.authid(), row.authid);
        EXPECT_EQ(opening.authrole(), row.authrole);
        EXPECT_EQ(opening.authmethod(), row.authmethod);
    }
}

TEST(RouterOpening, SaltedWampcraChallengeIsExactAndOurClientPassesIt) {
    RouterOpening router("realm1", credentials(), counting());
    ClientCredentials c;
    c.realm = "realm1";
    c.authid = "carol";
    c.authmethods = {"wampcra"};
    c.secret = "s3";
    ClientOpening client(c);

    const std::vector<Message> challenge = router.receive(client.hello());
    ASSERT_EQ(challenge.size(), 1u);
    EXPECT_EQ(
        bytes_of(serialize(challenge[0])),
        hex(R"(93 04 A7 'wampcra' 84 A9 'challenge' D9 8B '{"authid":"carol","authrole":"user",)"
            R"("authmethod":"wampcra","authprovider":"static",)"
            R"("nonce":"abcdef0123456789abcdef0123456789","session":42}')"
            R"( AA 'iterations' 03 A6 'keylen' 14 A4 'salt' A4 'nacl')"));
    const std::vector<Message> authenticate = client.receive(challenge[0]);
    ASSERT_EQ(authenticate.size(), 1u);
    const std::vector<Message> welcome = router.receive(authenticate[0]);
    ASSERT_EQ(welcome.size(), 1u);
    EXPECT_EQ(router.stage(), RouterOpening::Stage::joined);
    client.receive(welcome[0]);
    EXPECT_EQ(client.stage(), ClientOpening::Stage::established);
    // The session named in the challenge is the one WELCOME gives.
    EXPECT_EQ(client.session(), 42u);
}

TEST(RouterOpening, RefuseEndsTheOpeningWithItsTexts) {
    RouterOpening opening("realm1", {}, counting());
    const Message abort = opening.refuse("wamp.error.protocol_violation", "bad bytes");
    EXPECT_EQ(bytes_of(serialize(abort)),
              hex("93 03 81 A7 'message' A9 'bad bytes' BD 'wamp.error.protocol_violation'"));
    EXPECT_EQ(opening.stage(), RouterOpening::Stage::refused);
    EXPECT_EQ(opening.refusal_reason(), "wamp.error.protocol_violation");
    EXPECT_TRUE(opening.receive(parse_message(mp::buffer(hex(HELLO_ANONYMOUS)))).empty());
}

// ---- crypto ---------------------------------------------------------------------------------

TEST(WampCra, PublishedVectors) {
    // HMAC-SHA256, RFC 4231 test case 2, as base64.
    EXPECT_EQ("W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=",
              wampcra_sign("Jefe", "what do ya want for nothing?"));
    // PBKDF2-HMAC-SHA256 ("passwd", "salt", 1 iteration, 64 bytes), RFC 7914 section 11.
    EXPECT_EQ(
        "VawEblbjCJ/sFpHCJUS2BflBhSFt3gRl5oudV8INrLxJypzM8Xm2RZkWZLOdd+8xfHG4RbHjC9UJESBB06GXgw==",
        wampcra_derive_key("passwd", "salt", 1, 64));
    EXPECT_EQ("", base64_encode(""));
    EXPECT_EQ("Zm8=", base64_encode("fo"));
    EXPECT_EQ("wampcra: iterations and key length must be positive",
              error_of([] { wampcra_derive_key("a", "b", 0, 32); }));
    EXPECT_TRUE(equal_constant_time("abc", "abc"));
    EXPECT_FALSE(equal_constant_time("abc", "abd"));
    EXPECT_FALSE(equal_constant_time("abc", "ab"));
}
