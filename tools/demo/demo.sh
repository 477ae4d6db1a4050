#!/usr/bin/env bash
# The demo: two private network namespaces, an agent host and a world host, joined by a veth pair
# at 198.18.0.1 and 198.18.0.2. In the agent namespace run the daemon, the front door and the
# interceptor watching curl; fetch a page over HTTP and HTTPS from servers on the world host, show
# what the front door and the daemon saw; stop the front door and fetch again (fail-open). Every
# namespace, process and file the demo makes is removed on exit, Ctrl-C included. The host's own
# network configuration is never touched: every address and rule lives inside the namespaces.
set -euo pipefail

BUILD=${BUILD:-build}
BIN=$BUILD/src/cli/tarnwick-proxyext
FRONTDOOR=$BUILD/tools/frontdoor/tarnwick-frontdoor
DAEMON=$BUILD/tools/daemon/tarnwick-daemon
AGENT=tw-demo-agent-$$
WORLD=tw-demo-world-$$
AGENT_LINK=twda$$
WORLD_LINK=twdw$$
AGENT_IP=198.18.0.1
WORLD_IP=198.18.0.2
FRONTDOOR_PORT=8443
MARK=0x7477
PIDS=()
WORK=

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
show() { sed 's/^/   /' "$@"; }
lines() { grep "$@" || true; }  # grep that is content to find nothing

source "$(dirname "$0")/lab.sh"
trap lab_cleanup EXIT
trap 'echo; echo "demo: interrupted, cleaning up"; exit 130' INT TERM

start() {  # start LOGFILE NETNS COMMAND...: runs in the background, stopped at exit
  local log=$1 ns=$2
  shift 2
  ip netns exec "$ns" "$@" >"$log" 2>&1 &
  PIDS+=($!)
}

wait_for() {  # wait_for DESCRIPTION COMMAND...: polls up to 5 s
  local what=$1
  shift
  for _ in $(seq 50); do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  echo "demo: $what did not come up" >&2
  return 1
}

port_open() { ip netns exec "$1" bash -c "exec 3<>/dev/tcp/$2/$3"; }

fetch() {  # fetch CURL-ARGS...: the page's first lines, or curl's error
  ip netns exec "$AGENT" curl -sS --max-time 10 "$@" | head -4 | show
}

if [ "$(id -u)" -ne 0 ]; then
  echo "demo: run as root (network namespaces and nftables): sudo make demo" >&2
  exit 2
fi
for tool in "$BIN" "$FRONTDOOR" "$DAEMON"; do
  [ -x "$tool" ] || { echo "demo: $tool is missing; run 'make build' first" >&2; exit 2; }
done
WORK=$(mktemp -d /tmp/tarnwick-demo.XXXXXX)

say "Network namespaces: agent host $AGENT_IP, world host $WORLD_IP"
ip netns add "$AGENT"
ip netns add "$WORLD"
ip link add "$AGENT_LINK" netns "$AGENT" type veth peer name "$WORLD_LINK" netns "$WORLD"
ip -n "$AGENT" addr add "$AGENT_IP/30" dev "$AGENT_LINK"
ip -n "$WORLD" addr add "$WORLD_IP/30" dev "$WORLD_LINK"
for ns in "$AGENT" "$WORLD"; do ip -n "$ns" link set lo up; done
ip -n "$AGENT" link set "$AGENT_LINK" up
ip -n "$WORLD" link set "$WORLD_LINK" up
echo "   $AGENT and $WORLD, joined by $AGENT_LINK <-> $WORLD_LINK"

say "World host: HTTP on :80, HTTPS on :443 (certificate made just now)"
mkdir -p "$WORK/www"
echo "hello from the world host" >"$WORK/www/index.html"
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=world.demo" \
  -addext "subjectAltName=DNS:world.demo" \
  -keyout "$WORK/key.pem" -out "$WORK/cert.pem" >/dev/null 2>&1
cat >"$WORK/https.py" <<'PY'
import functools, http.server, ssl, sys
root, cert, key, host = sys.argv[1:5]
handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=root)
server = http.server.ThreadingHTTPServer((host, 443), handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)
server.socket = context.wrap_socket(server.socket, server_side=True)
server.serve_forever()
PY
start "$WORK/http.log" "$WORLD" /usr/bin/python3 -m http.server 80 --bind "$WORLD_IP" --directory "$WORK/www"
start "$WORK/https.log" "$WORLD" /usr/bin/python3 "$WORK/https.py" "$WORK/www" "$WORK/cert.pem" \
  "$WORK/key.pem" "$WORLD_IP"
wait_for "the HTTP server" port_open "$WORLD" "$WORLD_IP" 80
wait_for "the HTTPS server" port_open "$WORLD" "$WORLD_IP" 443

CURL=$(readlink -f "$(command -v curl)")
cat >"$WORK/options.json" <<JSON
{"frontDoorHost": "127.0.0.1", "frontDoorPort": $FRONTDOOR_PORT,
 "socketPath": "$WORK/daemon.sock", "watchedSigningIDs": ["$CURL"]}
JSON

say "Agent host: daemon, front door on 127.0.0.1:$FRONTDOOR_PORT, interceptor watching $CURL"
show "$WORK/options.json"
start "$WORK/daemon.log" "$AGENT" "$DAEMON" --socket "$WORK/daemon.sock"
wait_for "the daemon" test -S "$WORK/daemon.sock"
# The front door's own connections carry the interceptor's mark and go straight out (redirecting
# all; kernel-side selection leaves them alone anyway: the front door is not watched).
start "$WORK/frontdoor.log" "$AGENT" "$FRONTDOOR" --listen "127.0.0.1:$FRONTDOOR_PORT" \
  --mark "$MARK"
FRONTDOOR_PID=${PIDS[-1]}
wait_for "the front door" grep -q '^listening' "$WORK/frontdoor.log"
start "$WORK/interceptor.log" "$AGENT" "$BIN" run --options "$WORK/options.json" \
  --control-socket "$WORK/control.sock" --mark "$MARK"
wait_for "the interceptor" test -S "$WORK/control.sock"
# Kernel-side selection where it loads (only curl's connections reach the interceptor), else the
# nftables redirect of everything, after a line saying why.
echo "   selection: $(ip netns exec "$AGENT" "$BIN" status --control-socket "$WORK/control.sock" |
  sed -n 's/.*"selection":"\([a-z]*\)".*/\1/p')"

say "curl http://$WORLD_IP/   (relayed through the front door)"
fetch "http://$WORLD_IP/"
say "curl https://world.demo/   (relayed; the front door reads the TLS server name)"
fetch --cacert "$WORK/cert.pem" --resolve "world.demo:443:$WORLD_IP" https://world.demo/
sleep 0.5

say "The front door's lines: identity headers, server name, bytes each way"
lines '^conn ' "$WORK/frontdoor.log" | show

say "Stopping the front door; curl http://$WORLD_IP/ again (fails open, straight to the server)"
kill "$FRONTDOOR_PID"
wait "$FRONTDOOR_PID" 2>/dev/null || true
fetch "http://$WORLD_IP/"
sleep 0.5

say "What the daemon heard (liveness beacons left out)"
lines -v '^proxyext.alive' "$WORK/daemon.log" | show
echo
lines '^relay.failopen' "$WORK/daemon.log" | lines -o 'reason=[^ ]*' | sed 's/^/   fail-open: /'

say "What the interceptor says of itself (tarnwick-proxyext status)"
ip netns exec "$AGENT" "$BIN" status --control-socket "$WORK/control.sock" | show

say "The interceptor's log"
show "$WORK/interceptor.log"

say "Done; removing the namespaces and everything started in them"
