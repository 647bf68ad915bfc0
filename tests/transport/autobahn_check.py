"""Third-party check of our WAMP bytes with autobahn's MessagePack serializer.

parse: takes messages in hex as arguments; prints "ok <Message class>" or "error <reason>" each.
emit:  prints "<name> <hex>" lines of router messages serialized by autobahn.
"""
import sys

import txaio

txaio.use_asyncio()

from autobahn.wamp import message, role  # noqa: E402
from autobahn.wamp.serializer import MsgPackSerializer  # noqa: E402


def parse(hexes):
    serializer = MsgPackSerializer()
    for text in hexes:
        try:
            messages = serializer.unserialize(bytes.fromhex(text), isBinary=True)
            if len(messages) != 1:
                print("error expected one message, got %d" % len(messages))
            else:
                print("ok " + type(messages[0]).__name__)
        except Exception as e:  # report every refusal, the test fails on it
            print("error " + str(e).replace("\n", " "))


def emit(_):
    serializer = MsgPackSerializer()
    roles = {"broker": role.RoleBrokerFeatures(), "dealer": role.RoleDealerFeatures()}
    messages = [
        ("WELCOME", message.Welcome(123456, roles, authid="alice", authrole="user",
                                    authmethod="ticket")),
        ("CHALLENGE", message.Challenge("wampcra", {"challenge": '{"nonce":"x"}',
                                                    "salt": "pepper", "iterations": 100,
                                                    "keylen": 16})),
        ("RESULT", message.Result(77, args=["text", 3])),
        ("RESULT_EMPTY", message.Result(79)),
        ("ERROR", message.Error(message.Call.MESSAGE_TYPE, 78, "app.error.failed",
                                args=["why"])),
        ("SUBSCRIBED", message.Subscribed(5, 999)),
        ("EVENT", message.Event(999, 1234, args=["frame"])),
        ("ABORT", message.Abort("wamp.error.no_such_realm", message="no realm")),
        ("GOODBYE", message.Goodbye("wamp.close.system_shutdown")),
    ]
    for name, msg in messages:
        payload, _ = serializer.serialize(msg)
        print(name + " " + payload.hex())


if __name__ == "__main__":
    {"parse": parse, "emit": emit}[sys.argv[1]](sys.argv[2:])
