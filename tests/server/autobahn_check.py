"""An independent WAMP client (autobahn, asyncio, msgpack) against qor-sim-server.

Usage: autobahn_check.py URL REALM   (URL rs://host:port or ws://host:port)
Joins, calls operations with each kind of argument and result as another implementation
encodes them, subscribes to the state topic while the simulation runs, leaves with GOODBYE. Prints "OK" and exits 0 on success;
otherwise prints what failed and exits 1.
"""

import asyncio
import sys

import msgpack
from autobahn.asyncio.component import Component
from autobahn.asyncio.rawsocket import WampRawSocketClientProtocol
from autobahn.wamp.exception import ApplicationError
from autobahn.wamp.types import PublishOptions

# autobahn 22.7's asyncio RawSocket protocol keeps its transport details under a private
# name while its session reads the public one on WELCOME; give it the public name.
if not hasattr(WampRawSocketClientProtocol, "transport_details"):
    WampRawSocketClientProtocol.transport_details = property(lambda self: self._transport_details)

URL, REALM = sys.argv[1], sys.argv[2]
OP = "qor.server.operation."
failures = []


def check(cond, what):
    if not cond:
        failures.append(what)


if URL.startswith("rs"):
    transport = {"type": "rawsocket", "url": URL, "serializer": "msgpack", "max_retries": 0}
else:
    transport = {"type": "websocket", "url": URL, "serializers": ["msgpack"], "max_retries": 0}
component = Component(transports=[transport], realm=REALM)


@component.on_join
async def joined(session, details):
    try:
        await exercise(session)
    except Exception as e:  # any surprise is a failure, reported below
        failures.append("unexpected %s: %s" % (type(e).__name__, e))
    await session.leave()


async def exercise(session):
    call = lambda name, *args: session.call(OP + name, *args)

    check(isinstance(await call("AUTHENTICATE", "anyone"), str), "AUTHENTICATE -> str")
    # Component data in the server's own layout; plain ints where numbers go are accepted.
    scene = msgpack.packb([
        ["Ground", 1, 0, [[0, 0, 1], 0.0, 0.8, 0.2]],
        ["Body", 2, 5, ["sphere", [0.5, 0, 0], 0, 1.0, [0, 0, 5, 1, 0, 0, 0], [0, 0, 0],
                        [0, 0, 0], 0.6, 0.1]],
    ], use_bin_type=True)
    check(await call("SEND_SCENE", scene) == 2, "SEND_SCENE -> 2")
    back = msgpack.unpackb(await call("GET_SERVER_SCENE"), raw=False)
    check([c[0] for c in back] == ["Ground", "Body"] and back[1][2] == 5, "GET_SERVER_SCENE")

    step = await call("STEP_SIMULATION")
    check(isinstance(step, list) and len(step) == 5, "STEP_SIMULATION -> 5 fields")
    states = msgpack.unpackb(step[0], raw=False, strict_map_key=False)
    check(list(states.keys()) == [2] and states[2][0][2] < 5.0, "state of body 2 fell")
    check(step[1] == 1 and len(step[4]) == 9, "step counter and details")

    check(await call("HAS_PROPERTY", "no.such") is False, "HAS_PROPERTY -> False")
    check(await call("SAVE_COMPONENTS", "autobahn") == 2, "SAVE_COMPONENTS")
    check(await call("CLEAR_BODIES_PERSISTENCES", "autobahn", [["2", "77"]], False) == [[True, False]],
          "CLEAR_BODIES_PERSISTENCES")

    try:
        await call("SET_SERVER_PERIOD_MS", "fast")
        failures.append("a string period was accepted")
    except ApplicationError as e:
        check(e.error == "wamp.error.invalid_argument", "bad argument -> invalid_argument")
        check("argument 1 of SET_SERVER_PERIOD_MS" in str(e.args), "error text names the argument")
    errors = await call("GET_LAST_ERRORS", True)
    check(len(errors[0]) >= 1, "GET_LAST_ERRORS remembers the failure")

    # The state and device topics are the server's: nobody else may publish there.
    acknowledged = PublishOptions(acknowledge=True)
    for topic in ("qor.server.update", "xsens_frame", "kinect_frame_3"):
        try:
            await session.publish(topic, [], options=acknowledged)
            failures.append("PUBLISH to %s was accepted" % topic)
        except ApplicationError as e:
            check(e.error == "wamp.error.not_authorized", "PUBLISH to %s -> not_authorized" % topic)
    await session.publish("chat.room", "hi", options=acknowledged)

    events = []
    got_three = loop.create_future()

    def on_update(result):
        events.append(result)
        if len(events) >= 3 and not got_three.done():
            got_three.set_result(True)

    subscription = await session.subscribe(on_update, "qor.server.update")
    await call("SET_PUBLISH_PERIOD_MS", 10)
    check(await call("START_SIMULATION") == 1, "START_SIMULATION")
    try:
        await asyncio.wait_for(got_three, 10)
    except asyncio.TimeoutError:
        failures.append("fewer than 3 updates in 10 s")
    check(await call("STOP_SIMULATION") == 0, "STOP_SIMULATION")
    await subscription.unsubscribe()
    check(not subscription.active, "UNSUBSCRIBE confirmed")
    for e in events:
        check(isinstance(e, list) and len(e) == 5 and isinstance(e[0], bytes), "update layout")


loop = asyncio.new_event_loop()
asyncio.set_event_loop(loop)


left = loop.create_future()


@component.on_leave
async def on_leave(session, details):
    if not left.done():
        left.set_result(details.reason)


async def main():
    # Done when the session has left; the component's own future also fails when the
    # connection cannot be made at all, which must not leave us waiting.
    started = asyncio.ensure_future(component.start(loop=loop))
    finished, _ = await asyncio.wait([left, started], timeout=60,
                                     return_when=asyncio.FIRST_COMPLETED)
    if left in finished:
        # The router answers our GOODBYE with its own, whose reason is what we see here.
        check(left.result() in ("wamp.close.goodbye_and_out", "wamp.close.normal"),
              "left with " + str(left.result()))
    elif started in finished and started.exception():
        failures.append("session: %s" % started.exception())
    else:
        failures.append("session did not end within 60 s")
    started.cancel()


try:
    loop.run_until_complete(main())
except Exception as e:
    failures.append("session: %s" % e)

if failures:
    print("FAILED: " + "; ".join(failures))
    sys.exit(1)
print("OK")
