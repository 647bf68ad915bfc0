#!/usr/bin/env bash
# The Windows demo, under Wine, against the Linux reference server on loopback: a whole tour
# over RawSocket and then WebSocket must finish with exit status 0, and without --url the
# demo must say that it needs one.
#   demo_against_linux_server.sh <Linux qor-sim-server> <qor-demo.exe> <emulator command...>
set -uo pipefail
server=$1 demo=$2
shift 2
if [ ! -x "$server" ]; then
  echo "no Linux qor-sim-server at '$server' (configure with -DQOR_LINUX_SERVER=<path>)" >&2
  exit 1
fi

work=$(mktemp -d)
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null; wait "$server_pid" 2>/dev/null; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$server" --host 127.0.0.1 --data-dir "$work" --devices 30 >"$work/listen.txt" 2>"$work/server.log" &
server_pid=$!
for _ in $(seq 200); do
  grep -q '^listening' "$work/listen.txt" && break
  sleep 0.1
done
line=$(grep '^listening' "$work/listen.txt") || { echo "server did not start" >&2; cat "$work/server.log" >&2; exit 1; }
rs=$(sed -n 's/.*rawsocket=\([0-9]*\).*/\1/p' <<<"$line")
ws=$(sed -n 's/.*websocket=\([0-9]*\).*/\1/p' <<<"$line")

failed=0
check() {  # check <what> <expected exit status> <text that must appear> -- <demo args...>
  local what=$1 want=$2 text=$3
  shift 4
  "$@" >"$work/out.txt" 2>&1
  local got=$?
  if [ "$got" -ne "$want" ] || ! grep -qF -- "$text" "$work/out.txt"; then
    echo "FAILED: $what: exit status $got (want $want), looked for: $text" >&2
    cat "$work/out.txt" >&2
    failed=1
  else
    echo "ok: $what"
  fi
}

for url in "rs://127.0.0.1:$rs" "ws://127.0.0.1:$ws"; do
  check "demo over $url" 0 "Done." -- "$@" "$demo" --url "$url"
  grep -qF "One frame of each simulated device" "$work/out.txt" || { echo "FAILED: no device frames over $url" >&2; failed=1; }
  grep -qF "the ball is back at height" "$work/out.txt" || { echo "FAILED: no reload over $url" >&2; failed=1; }
done
check "demo without --url" 1 "on Windows the demo needs --url" -- "$@" "$demo"
exit $failed
