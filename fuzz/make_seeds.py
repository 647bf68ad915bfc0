#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into OUT/<target>/ (OUT defaults to
build-fuzz/seeds). Seeds come from the hex byte tables the tests already hold, plus, for the
server's operations, one well-formed call per line of the operation list. Nothing here is
committed as bytes: run it again after the tables change."""

import hashlib
import os
import re
import struct
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HEX = re.compile(r'"((?:[0-9A-Fa-f]{2} ?)+)"')


def pack(value):
    """MessagePack with the forms our peers write: the shortest integer, float 64, str, bin."""
    if value is None:
        return b"\xc0"
    if value is True or value is False:
        return b"\xc3" if value else b"\xc2"
    if isinstance(value, int):
        if 0 <= value < 128:
            return bytes([value])
        if -32 <= value < 0:
            return struct.pack(">b", value)
        return b"\xd3" + struct.pack(">q", value)
    if isinstance(value, float):
        return b"\xcb" + struct.pack(">d", value)
    if isinstance(value, str):
        raw = value.encode()
        return (bytes([0xA0 | len(raw)]) if len(raw) < 32 else b"\xd9" + bytes([len(raw)])) + raw
    if isinstance(value, bytes):
        return b"\xc4" + bytes([len(value)]) + value
    if isinstance(value, list):
        head = bytes([0x90 | len(value)]) if len(value) < 16 else b"\xdc" + struct.pack(">H", len(value))
        return head + b"".join(pack(v) for v in value)
    raise TypeError(value)


def tables(*areas):
    """Every hex row of the test sources of the given areas, as bytes."""
    rows = []
    for area in areas:
        folder = os.path.join(ROOT, "tests", area)
        for name in sorted(os.listdir(folder)):
            if not name.endswith((".cpp", ".hpp")):
                continue
            with open(os.path.join(folder, name), encoding="utf-8") as f:
                for match in HEX.finditer(f.read()):
                    rows.append(bytes.fromhex(match.group(1).replace(" ", "")))
    return rows


def write(out, target, seeds):
    folder = os.path.join(out, target)
    os.makedirs(folder, exist_ok=True)
    for seed in seeds:
        with open(os.path.join(folder, hashlib.sha1(seed).hexdigest()), "wb") as f:
            f.write(seed)
    return len(set(seeds))


# Sample arguments by the type names of the operation list.
SAMPLE = {
    "std::string": "a",
    "int": 1,
    "long long": 1,
    "bool": True,
    "double": 20.0,
    "qor::serialization::msgpack::buffer": b"",
    "dax::types::vector_string_t": [["a"]],
    "dax::types::mesh_batch_t": [[[0.0, 0.0, 0.0], [1.0, 0.0, 0.0], [0.0, 1.0, 0.0]], [], [[0, 1, 2]]],
}


def operations():
    """(name, argument types) of every line of the operation list, in its (alphabetical) order."""
    ops = []
    with open(os.path.join(ROOT, "src", "dax", "types", "operations.def"), encoding="utf-8") as f:
        for line in f:
            m = re.match(r"DAX_OPERATION_\d\((\w+), ([^,]+)(.*)\)$", line.strip())
            if m:
                args = [a.strip() for a in m.group(3).split(",") if a.strip()]
                ops.append((m.group(1), args))
    return ops


def server_calls():
    # The fuzz target picks an operation by its index in sorted order.
    ops = sorted(operations(), key=lambda op: op[0])
    index = {name: i for i, (name, _) in enumerate(ops)}

    def call(name, args):
        body = b"".join(pack(a) for a in args)
        return bytes([index[name], len(args)]) + struct.pack(">H", len(body)) + body

    seeds = [call(name, [SAMPLE[t] for t in types]) for name, types in ops]
    mesh = SAMPLE["dax::types::mesh_batch_t"]
    seeds.append(call("CREATE_TRIMESH", ["m", 3, 0, 1]) + call("UPDATE_TRIMESH", [1, 0, 0, mesh]) +
                 call("GET_TRIMESH", [1]) + call("GET_TRIMESH_INFO", [1]))
    seeds.append(call("SET_PROPERTY", ["k", "v"]) + call("SAVE_COMPONENTS", ["s"]) +
                 call("LOAD_COMPONENTS", ["s"]) + call("BROWSE_PERSISTENCES", []))
    return seeds


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build-fuzz", "seeds")
    records = tables("types", "client")
    wamp = tables("wamp", "transport", "client")
    counts = {
        "fuzz_records": write(out, "fuzz_records",
                              [bytes([i]) + row for row in records for i in range(15)]),
        "fuzz_msgpack": write(out, "fuzz_msgpack",
                              [bytes([0]) + row for row in tables("codec", "types", "wamp")]),
        "fuzz_message": write(out, "fuzz_message",
                              [bytes([flags]) + row for row in wamp for flags in range(4)]),
        "fuzz_rawsocket": write(out, "fuzz_rawsocket",
                                [b"\x7f\xf2\x00\x00" + bytes([9, i]) + b"\x00" +
                                 struct.pack(">I", len(row))[1:] + row
                                 for row in wamp for i in (1, 7)]),
        # Flags: which side reads (bit 0) and the limit's exponent; then the piece seed.
        "fuzz_websocket": write(out, "fuzz_websocket",
                                [bytes([flags, 7]) + row for row in tables("transport")
                                 for flags in (0, 1, 2 * 16, 2 * 16 + 1)]),
        "fuzz_opening": write(out, "fuzz_opening",
                              [bytes([side]) + b"".join(struct.pack(">H", len(r)) + r for r in rows)
                               for side in range(16)
                               for rows in ([row] for row in tables("wamp"))]),
        "fuzz_scene": write(out, "fuzz_scene",
                            [bytes([i]) + row for row in tables("client") for i in range(3)]),
        "fuzz_server_operations": write(out, "fuzz_server_operations", server_calls()),
    }
    for target, count in counts.items():
        print(f"{target}: {count} seeds")


if __name__ == "__main__":
    main()
