#!/usr/bin/env bash
# Macro benchmark: the same load over several paths between an agent host and a world host (two
# private network namespaces joined by a veth pair, 198.18.0.1 and 198.18.0.2), in one run, as one
# table with ratios to the direct path.
#   direct        no interceptor
#   handback      interceptor running with kernel-side selection, the load generator not watched:
#                 its connections never reach the interceptor
#   handback-all  the same with --selection all: every connection is redirected to the
#                 interceptor, which hands the unwatched ones back and dials them itself
#   relayed       interceptor (kernel-side selection) watching the load generator: relayed
#                 through tarnwick-frontdoor
#   relayed-all   the same with --selection all (not run unless PATHS names it)
#   explicit   no interceptor; the load generator asks the same front door with CONNECT itself
#   redsocks   no interceptor; Debian's redsocks (http-connect) carries it to the same front door
# Per path: throughput one and four streams each way, connect-and-answer latency p50/p99 and
# connections per second, CPU of the carrier (interceptor or redsocks) per GB and per connection,
# and its memory per idle connection with HOLD_COUNT connections open. Needs root; touches nothing
# outside the namespaces; everything it starts is stopped on exit, Ctrl-C included.
# With --json, one JSON object per path follows the table, a line each (null where not measured).
set -euo pipefail

JSON=0
[ "${1:-}" = --json ] && JSON=1

BUILD=${BUILD:-build}
RUN_SECONDS=${RUN_SECONDS:-3}
LATENCY_COUNT=${LATENCY_COUNT:-2000}
HOLD_COUNT=${HOLD_COUNT:-1000}
PATHS=${PATHS:-direct handback handback-all relayed explicit redsocks}

BIN=$(readlink -f "$BUILD/src/cli/tarnwick-proxyext")
FRONTDOOR=$(readlink -f "$BUILD/tools/frontdoor/tarnwick-frontdoor")
DAEMON=$(readlink -f "$BUILD/tools/daemon/tarnwick-daemon")
AGENT=tw-bench-agent-$$
WORLD=tw-bench-world-$$
AGENT_IP=198.18.0.1
WORLD_IP=198.18.0.2
SERVER_PORT=9000
FRONTDOOR_PORT=8443
REDSOCKS_PORT=12345
MARK=0x7477  # the interceptor's socket mark; the front door's upstream sockets carry it too
NOBODY=65534
TICKS=$(getconf CLK_TCK)
PIDS=()
WORK=

source "$(dirname "$0")/../../tools/demo/lab.sh"
cleanup() {
  set +e
  exec 8>&- 2>/dev/null
  lab_cleanup
}
trap cleanup EXIT
trap 'exit 130' INT TERM

note() { printf '%s\n' "$*" >&2; }
in_agent() { ip netns exec "$AGENT" "$@"; }

start() {  # start LOGFILE NETNS COMMAND...: background, remembered; sets STARTED
  local log=$1 ns=$2
  shift 2
  ip netns exec "$ns" "$@" >"$log" 2>&1 &
  STARTED=$!
  PIDS+=("$STARTED")
}

stop() {
  kill "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}

wait_for() {  # wait_for DESCRIPTION COMMAND...
  local what=$1
  shift
  for _ in $(seq 100); do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.05
  done
  note "bench: $what did not come up"
  exit 1
}

port_open() { ip netns exec "$1" bash -c "exec 3<>/dev/tcp/$2/$3"; }
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo 0; }
rss_kib() { awk '/^VmRSS/ { print $2 }' "/proc/$1/status"; }
field() { sed -n "s/.*$1=\([^ ]*\).*/\1/p"; }

if [ "$(id -u)" -ne 0 ]; then
  note "bench: run as root (network namespaces and nftables): sudo make bench-macro"
  exit 2
fi
for tool in "$BIN" "$FRONTDOOR" "$DAEMON" "$BUILD/bench/macro/tw-macro-load"; do
  [ -x "$tool" ] || { note "bench: $tool is missing; run 'make build' first"; exit 2; }
done
command -v redsocks >/dev/null || PATHS=${PATHS/redsocks/}
WORK=$(mktemp -d /tmp/tarnwick-bench.XXXXXX)
chmod 755 "$WORK"
# A copy the unprivileged redsocks client can run, at a path of its own.
LOAD=$WORK/tw-macro-load
cp "$BUILD/bench/macro/tw-macro-load" "$LOAD"
ulimit -n "$(ulimit -Hn)"  # a thousand relayed connections need a few thousand descriptors

ip netns add "$AGENT"
ip netns add "$WORLD"
ip link add twba$$ netns "$AGENT" type veth peer name twbw$$ netns "$WORLD"
ip -n "$AGENT" addr add "$AGENT_IP/30" dev twba$$
ip -n "$WORLD" addr add "$WORLD_IP/30" dev twbw$$
for ns in "$AGENT" "$WORLD"; do ip -n "$ns" link set lo up; done
# Thousands of short connections per path leave thousands in TIME_WAIT; without reuse, a later
# path's connects slow down searching for a free port, and the order of the paths would decide
# their latency. Only the namespaces' own settings change.
for ns in "$AGENT" "$WORLD"; do ip netns exec "$ns" sysctl -qw net.ipv4.tcp_tw_reuse=1; done
ip -n "$AGENT" link set twba$$ up
ip -n "$WORLD" link set twbw$$ up

start "$WORK/server.log" "$WORLD" "$LOAD" serve "$SERVER_PORT"
wait_for "the server" port_open "$WORLD" "$WORLD_IP" "$SERVER_PORT"
# The daemon takes the interceptor's events, as it does beside a real agent.
start "$WORK/daemon.log" "$AGENT" "$DAEMON" --socket "$WORK/daemon.sock" --json
wait_for "the daemon" test -S "$WORK/daemon.sock"
start "$WORK/frontdoor.log" "$AGENT" "$FRONTDOOR" --listen "127.0.0.1:$FRONTDOOR_PORT" \
  --mark "$MARK"
wait_for "the front door" port_open "$AGENT" 127.0.0.1 "$FRONTDOOR_PORT"

CARRIER=   # PID whose CPU and memory are measured
VIA=()     # extra arguments of the load generator
AS=()      # how the load generator is run

start_interceptor() {  # start_interceptor WATCHED-PATH SELECTION
  cat >"$WORK/options.json" <<JSON
{"frontDoorHost": "127.0.0.1", "frontDoorPort": $FRONTDOOR_PORT,
 "socketPath": "$WORK/daemon.sock", "watchedSigningIDs": ["$1"]}
JSON
  rm -f "$WORK/control.sock"
  start "$WORK/interceptor.log" "$AGENT" "$BIN" run --options "$WORK/options.json" \
    --control-socket "$WORK/control.sock" --table tw_bench --mark "$MARK" --selection "$2"
  CARRIER=$STARTED
  wait_for "the interceptor" test -S "$WORK/control.sock"
}

start_redsocks() {
  cat >"$WORK/redsocks.conf" <<CONF
base { log_debug = off; log_info = off; log = stderr; daemon = off; redirector = iptables; }
redsocks { local_ip = 127.0.0.1; local_port = $REDSOCKS_PORT; ip = 127.0.0.1;
           port = $FRONTDOOR_PORT; type = http-connect; }
CONF
  start "$WORK/redsocks.log" "$AGENT" redsocks -c "$WORK/redsocks.conf"
  CARRIER=$STARTED
  wait_for "redsocks" port_open "$AGENT" 127.0.0.1 "$REDSOCKS_PORT"
  # Only the load generator's connections (run as nobody) go to redsocks; the front door's own
  # upstream connections stay direct.
  in_agent nft -f - <<NFT
table ip tw_bench_redsocks {
  chain output {
    type nat hook output priority -100;
    meta skuid $NOBODY ip daddr $WORLD_IP tcp dport $SERVER_PORT redirect to :$REDSOCKS_PORT
  }
}
NFT
  AS=(setpriv --reuid="$NOBODY" --regid="$NOBODY" --clear-groups)
}

begin_path() {
  CARRIER=
  VIA=()
  AS=()
  case $1 in
    direct) ;;
    handback) start_interceptor /nonexistent/unwatched-agent kernel ;;
    handback-all) start_interceptor /nonexistent/unwatched-agent all ;;
    relayed) start_interceptor "$LOAD" kernel ;;
    relayed-all) start_interceptor "$LOAD" all ;;
    explicit) VIA=(--via "127.0.0.1:$FRONTDOOR_PORT") ;;
    redsocks) start_redsocks ;;
  esac
}

end_path() {
  if [ -n "$CARRIER" ] && ! kill -0 "$CARRIER" 2>/dev/null; then
    local status=0
    wait "$CARRIER" || status=$?
    note "bench: $1: the carrier exited during the run with status $status (141: SIGPIPE)"
  fi
  [ -n "$CARRIER" ] && stop "$CARRIER"
  in_agent nft delete table ip tw_bench_redsocks 2>/dev/null || true
}

load() { in_agent "${AS[@]}" "$LOAD" "$@" "${VIA[@]}"; }

declare -A R  # R[path,metric]

measure_throughput() {  # measure_throughput PATH: four runs, CPU per GB over all of them
  local path=$1 cpu0 out bytes=0
  [ -n "$CARRIER" ] && cpu0=$(cpu_ticks "$CARRIER")
  for streams in 1 4; do
    for dir in up down; do
      out=$(load throughput "$WORLD_IP" "$SERVER_PORT" "$dir" "$streams" "$RUN_SECONDS")
      R[$path,$dir$streams]=$(field gbps <<<"$out")
      bytes=$((bytes + $(field bytes <<<"$out")))
    done
  done
  if [ -n "$CARRIER" ] && kill -0 "$CARRIER" 2>/dev/null; then
    R[$path,cpugb]=$(awk -v t=$(($(cpu_ticks "$CARRIER") - cpu0)) -v hz="$TICKS" -v b="$bytes" \
      'BEGIN { printf "%.2f", t / hz / (b / 1e9) }')
  fi
}

measure_latency() {
  local path=$1 cpu0 out
  [ -n "$CARRIER" ] && cpu0=$(cpu_ticks "$CARRIER")
  out=$(load latency "$WORLD_IP" "$SERVER_PORT" "$LATENCY_COUNT")
  R[$path,p50]=$(field p50_us <<<"$out")
  R[$path,p99]=$(field p99_us <<<"$out")
  R[$path,cps]=$(field conns_per_s <<<"$out")
  if [ -n "$CARRIER" ] && kill -0 "$CARRIER" 2>/dev/null; then
    R[$path,cpuconn]=$(awk -v t=$(($(cpu_ticks "$CARRIER") - cpu0)) -v hz="$TICKS" \
      -v n="$LATENCY_COUNT" 'BEGIN { printf "%.0f", t / hz / n * 1e6 }')
  fi
}

measure_memory() {
  local path=$1 before holder
  [ -n "$CARRIER" ] || return 0
  sleep 0.5
  before=$(rss_kib "$CARRIER")
  rm -f "$WORK/hold.in"
  mkfifo "$WORK/hold.in"
  in_agent "${AS[@]}" "$LOAD" hold "$WORLD_IP" "$SERVER_PORT" "$HOLD_COUNT" "${VIA[@]}" \
    <"$WORK/hold.in" >"$WORK/hold.out" 2>&1 &
  holder=$!
  PIDS+=("$holder")
  exec 8>"$WORK/hold.in"
  for _ in $(seq 600); do
    grep -q ready "$WORK/hold.out" && break
    kill -0 "$holder" 2>/dev/null || break
    sleep 0.05
  done
  if grep -q ready "$WORK/hold.out"; then
    sleep 1
    R[$path,kib]=$(awk -v a="$before" -v b="$(rss_kib "$CARRIER")" -v n="$HOLD_COUNT" \
      'BEGIN { printf "%.1f", (b - a) / n }')
  else
    note "bench: $path: holding $HOLD_COUNT connections failed: $(cat "$WORK/hold.out")"
  fi
  exec 8>&-
  wait "$holder" 2>/dev/null || true
}

for path in $PATHS; do
  note "bench: $path"
  begin_path "$path"
  measure_latency "$path"
  measure_memory "$path"
  measure_throughput "$path"
  end_path "$path"
done

cell() {  # cell PATH METRIC [ratio]: the value, with its ratio to direct when asked
  local v=${R[$1,$2]:-} d=${R[direct,$2]:-}
  if [ -z "$v" ]; then printf '—'; return; fi
  if [ "${3:-}" = ratio ] && [ "$1" != direct ] && [ -n "$d" ]; then
    awk -v v="$v" -v d="$d" 'BEGIN { if (d > 0) printf "%s (%.2f×)", v, v / d; else printf "%s", v }'
  else
    printf '%s' "$v"
  fi
}

echo
echo "Macro benchmark: ${RUN_SECONDS}s per throughput run, $LATENCY_COUNT connections for latency," \
  "$HOLD_COUNT idle connections for memory; ratios to direct in parentheses."
echo
echo "| path | up 1× Gbit/s | down 1× Gbit/s | up 4× Gbit/s | down 4× Gbit/s | p50 µs | p99 µs | conn/s | carrier CPU s/GB | carrier CPU µs/conn | carrier KiB/idle conn |"
echo "|---|---|---|---|---|---|---|---|---|---|---|"
for path in $PATHS; do
  printf '| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n' "$path" \
    "$(cell "$path" up1 ratio)" "$(cell "$path" down1 ratio)" "$(cell "$path" up4 ratio)" \
    "$(cell "$path" down4 ratio)" "$(cell "$path" p50 ratio)" "$(cell "$path" p99 ratio)" \
    "$(cell "$path" cps ratio)" "$(cell "$path" cpugb)" "$(cell "$path" cpuconn)" \
    "$(cell "$path" kib)"
done
echo
echo "Carrier: the interceptor (handback, relayed: kernel-side selection; -all: --selection all)" \
  "or redsocks. The front door marks its upstream sockets with the interceptor's mark, so on the" \
  "relayed paths only the agent's connection is intercepted, as on the redsocks path."

if [ "$JSON" = 1 ]; then
  echo
  for path in $PATHS; do
    line="{\"path\":\"$path\""
    for metric in up1 down1 up4 down4 p50 p99 cps cpugb cpuconn kib; do
      line+=",\"$metric\":${R[$path,$metric]:-null}"
    done
    echo "$line}"
  done
fi
