#!/bin/bash
# Runs ftpload against Korvane and the peer servers in interleaved rounds on loopback and prints
# the medians, Korvane's ratio to each peer, each server's CPU seconds and peak memory, and the
# loopback limit of this machine measured in the same run.
#
#   bench/compare.sh [BUILD]        (make bench runs it on the default build tree)
#
# Knobs (environment): ROUNDS (3), CLIENTS (200), SIZE_MIB (1000), TLS_MIB (500), CONC_MIB (10),
# SESSION_SECS (2), NOOPS (10000), KORV_PORT (2521), BENCH_HOME (the test account's home, default
# BUILD/bench/home/korvbench). Results land in BUILD/bench/.
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$SRC/build}" && pwd)
OUT=$BUILD/bench
ROUNDS=${ROUNDS:-3}
CLIENTS=${CLIENTS:-200}
SIZE_MIB=${SIZE_MIB:-1000}
TLS_MIB=${TLS_MIB:-500}
CONC_MIB=${CONC_MIB:-10}
SESSION_SECS=${SESSION_SECS:-2}
NOOPS=${NOOPS:-10000}
KORV_PORT=${KORV_PORT:-2521}
BENCH_USER=korvbench
BENCH_PASS=korvbench
export BENCH_HOME=${BENCH_HOME:-$OUT/home/$BENCH_USER}
FTPLOAD=$BUILD/ftpload

die() { echo "compare.sh: $*" >&2; exit 1; }
[ -x "$FTPLOAD" ] || die "no $FTPLOAD: build first (make build)"
[ "$(id -u)" -eq 0 ] || die "run as root: the servers switch to the test account"

mkdir -p "$OUT/raw"
rm -f "$OUT"/raw/*.txt
START=$(date +%s)

# Servers under test: "name port pid" lines.
SERVERS=$OUT/servers.txt
: >"$SERVERS"
KORV_PID=""
KORV_NOTE=""

cleanup() {
    if [ -n "$KORV_PID" ]; then
        kill -TERM "$KORV_PID" 2>/dev/null || true
        for _ in $(seq 50); do kill -0 "$KORV_PID" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$KORV_PID" 2>/dev/null || true
    fi
    "$SRC/bench/peers.sh" stop "$BUILD" || true
    local g
    for g in /sys/fs/cgroup/cpuacct/korvbench-* /sys/fs/cgroup/korvbench-*; do
        [ -d "$g" ] && rmdir "$g" 2>/dev/null || true
    done
}
trap cleanup EXIT

port_up() {
    local port=$1 pid=$2 i
    for i in $(seq 100); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
        kill -0 "$pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}

echo "compare.sh: starting the peers"
"$SRC/bench/peers.sh" start "$BUILD" | tee -a "$SERVERS"

if [ -x "$BUILD/korvane" ]; then
    STATE=$OUT/korvane-state
    mkdir -p "$STATE/logs"
    sed -e "s|@KORV_STATE@|$STATE|g" -e "s|@KORV_HOME@|$BENCH_HOME|g" -e "s|\"2521\"|\"$KORV_PORT\"|" \
        "$SRC/bench/korvane.ini" >"$STATE/korvane.ini"
    "$BUILD/korvane" -config "$STATE/korvane.ini" -test </dev/null >"$STATE/korvane.out" 2>&1 &
    KORV_PID=$!
    if port_up "$KORV_PORT" "$KORV_PID"; then
        echo "korvane $KORV_PORT $KORV_PID" | tee -a "$SERVERS"
    else
        KORV_NOTE="the server did not answer on port $KORV_PORT: $(tail -c 300 "$STATE/korvane.out" | tr '\n' ' ')"
        kill -KILL "$KORV_PID" 2>/dev/null || true
        KORV_PID=""
    fi
else
    KORV_NOTE="$BUILD/korvane does not exist yet"
fi
[ -z "$KORV_NOTE" ] || echo "compare.sh: Korvane not measured: $KORV_NOTE"

# CPU seconds of a server and every process it forks: a cpuacct group when the kernel lets us
# make one, else the process's own times plus those of the children it has waited for.
cpu_group() {
    local name=$1 pid=$2 g
    for g in /sys/fs/cgroup/cpuacct /sys/fs/cgroup/unified /sys/fs/cgroup; do
        if [ -f "$g/cgroup.procs" ] && mkdir -p "$g/korvbench-$name" 2>/dev/null &&
            echo "$pid" >"$g/korvbench-$name/cgroup.procs" 2>/dev/null; then
            echo "$g/korvbench-$name"
            return
        fi
    done
    echo ""
}
cpu_now() {
    local group=$1 pid=$2
    if [ -n "$group" ] && [ -f "$group/cpuacct.usage" ]; then
        awk '{printf "%.3f", $1 / 1e9}' "$group/cpuacct.usage"
    elif [ -n "$group" ] && [ -f "$group/cpu.stat" ]; then
        awk '$1 == "usage_usec" {printf "%.3f", $2 / 1e6}' "$group/cpu.stat"
    else
        sed 's/.*) //' "/proc/$pid/stat" |
            awk -v hz="$(getconf CLK_TCK)" '{printf "%.3f", ($12 + $13 + $14 + $15) / hz}'
    fi
}
declare -A GROUP CPU0
while read -r name port pid; do
    GROUP[$name]=$(cpu_group "$name" "$pid")
    CPU0[$name]=$(cpu_now "${GROUP[$name]}" "$pid")
done <"$SERVERS"

# The loopback limit is measured on a file of the size of the single transfers.
LOOPFILE=$OUT/loopback.bin
if [ ! -f "$LOOPFILE" ] || [ "$(stat -c %s "$LOOPFILE")" -ne $((SIZE_MIB * 1048576)) ]; then
    head -c $((SIZE_MIB * 1048576)) /dev/zero >"$LOOPFILE"
fi

mapfile -t ORDER < <(awk '{print $1}' "$SERVERS")
for round in $(seq "$ROUNDS"); do
    echo "compare.sh: round $round of $ROUNDS"
    "$FTPLOAD" -loopback "$LOOPFILE" -label loopback >"$OUT/raw/round$round-loopback.txt"
    # Each round starts with the next server, so that no server always runs first or last.
    n=${#ORDER[@]}
    for i in $(seq 0 $((n - 1))); do
        name=${ORDER[$(((i + round - 1) % n))]}
        read -r _ port pid < <(grep "^$name " "$SERVERS")
        echo "compare.sh:   $name"
        "$FTPLOAD" -port "$port" -user "$BENCH_USER" -pass "$BENCH_PASS" -label "$name" -watch "$pid" \
            -clients "$CLIENTS" -size "$SIZE_MIB" -tls-size "$TLS_MIB" -conc-size "$CONC_MIB" \
            -session-secs "$SESSION_SECS" -noops "$NOOPS" >"$OUT/raw/round$round-$name.txt" ||
            echo "compare.sh: ftpload failed against $name" >&2
    done
done

: >"$OUT/cpu.txt"
while read -r name port pid; do
    now=$(cpu_now "${GROUP[$name]}" "$pid")
    how="cpuacct group"
    [ -n "${GROUP[$name]}" ] || how="process and reaped children"
    echo -e "$name\t$(awk -v a="${CPU0[$name]}" -v b="$now" 'BEGIN {printf "%.2f", b - a}')\t$how" >>"$OUT/cpu.txt"
done <"$SERVERS"

COMMIT=$(git -C "$SRC" rev-parse --short HEAD 2>/dev/null || echo unknown)
git -C "$SRC" diff --quiet HEAD 2>/dev/null || COMMIT="$COMMIT (with uncommitted changes)"
python3 "$SRC/bench/summary.py" --raw "$OUT/raw" --cpu "$OUT/cpu.txt" --commit "$COMMIT" \
    --korvane-note "$KORV_NOTE" --rounds "$ROUNDS" --clients "$CLIENTS" --size "$SIZE_MIB" \
    --tls-size "$TLS_MIB" --conc-size "$CONC_MIB" --seconds $(($(date +%s) - START)) | tee "$OUT/results.md"
