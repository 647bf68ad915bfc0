#!/usr/bin/env bash
# Runs one example program against a fresh qor-sim-server on free loopback ports.
# usage: run_example.sh SERVER EXAMPLE
set -euo pipefail
server=$1 example=$2
data=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; rm -rf "$data"' EXIT
"$server" --data-dir "$data" --devices 30 >"$data/out" 2>"$data/log" &
pid=$!
for _ in $(seq 100); do
  grep -q '^listening' "$data/out" && break
  kill -0 "$pid" || { cat "$data/log"; exit 1; }
  sleep 0.1
done
port=$(sed -n 's/^listening rawsocket=\([0-9]*\) .*/\1/p' "$data/out")
[ -n "$port" ] || { echo "the server did not report its port"; cat "$data/log"; exit 1; }
"$example" "rs://127.0.0.1:$port"
