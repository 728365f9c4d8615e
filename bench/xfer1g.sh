#!/bin/bash
# One large file each way over loopback, plain and with explicit TLS (AUTH TLS, PROT P), against
# Korvane and vsftpd in the same run: MB/s as curl measures it, and the server's CPU seconds before
# and after each transfer: from a cpuacct group that holds the server and every process it forks
# (vsftpd's session processes), or where no group can be made from /proc/PID/stat (the process's
# own times plus those of the children it has reaped).
#
#   bench/xfer1g.sh [BUILD]        (root: the servers switch to the test account of peers.sh)
#
# Knobs (environment): SIZE_MIB (1024), ROUNDS (1), KORV_PORT (2521), BENCH_HOME.
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$SRC/build}" && pwd)
SIZE_MIB=${SIZE_MIB:-1024}
ROUNDS=${ROUNDS:-1}
KORV_PORT=${KORV_PORT:-2521}
OUT=$BUILD/bench/xfer1g
export BENCH_HOME=${BENCH_HOME:-$BUILD/bench/home/korvbench}
USERPASS=korvbench:korvbench
TICK=$(getconf CLK_TCK)
KORV_PID=""

die() { echo "xfer1g.sh: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || die "run as root"
[ -x "$BUILD/korvane" ] || die "no $BUILD/korvane: build first"
command -v curl >/dev/null || die "curl is needed"
mkdir -p "$OUT"

cleanup() {
    [ -n "$KORV_PID" ] && kill -TERM "$KORV_PID" 2>/dev/null || true
    "$SRC/bench/peers.sh" stop "$BUILD" >/dev/null 2>&1 || true
    sleep 0.5
    local g
    for g in /sys/fs/cgroup/cpuacct/korvx-korvane /sys/fs/cgroup/cpuacct/korvx-vsftpd; do
        [ -d "$g" ] && rmdir "$g" 2>/dev/null || true
    done
}
trap cleanup EXIT

"$SRC/bench/peers.sh" start "$BUILD" >"$OUT/peers.txt"
VS_PORT=$(awk '$1 == "vsftpd" {print $2}' "$OUT/peers.txt")
VS_PID=$(awk '$1 == "vsftpd" {print $3}' "$OUT/peers.txt")
[ -n "$VS_PID" ] || die "vsftpd did not start: $(cat "$OUT/peers.txt")"

STATE=$OUT/korvane-state
mkdir -p "$STATE/logs"
sed -e "s|@KORV_STATE@|$STATE|g" -e "s|@KORV_HOME@|$BENCH_HOME|g" -e "s|\"2521\"|\"$KORV_PORT\"|" \
    "$SRC/bench/korvane.ini" >"$STATE/korvane.ini"
"$BUILD/korvane" -config "$STATE/korvane.ini" -test </dev/null >"$STATE/korvane.out" 2>&1 &
KORV_PID=$!
for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$KORV_PORT") 2>/dev/null && break
    sleep 0.1
done

SRCFILE=$OUT/src.bin
if [ "$(stat -c %s "$SRCFILE" 2>/dev/null || echo 0)" -ne $((SIZE_MIB << 20)) ]; then
    head -c $((SIZE_MIB << 20)) /dev/urandom >"$SRCFILE"
fi
cp "$SRCFILE" "$BENCH_HOME/xfer1g.bin"
chown korvbench: "$BENCH_HOME/xfer1g.bin"

# A cpuacct group for a server, or "" when none can be made.
cpu_group() {
    local g=/sys/fs/cgroup/cpuacct
    if [ -f "$g/cgroup.procs" ] && mkdir -p "$g/korvx-$1" 2>/dev/null &&
        echo "$2" >"$g/korvx-$1/cgroup.procs" 2>/dev/null; then
        echo "$g/korvx-$1"
    fi
}
# CPU seconds of a server so far.
cpu_now() {
    if [ -n "$1" ]; then
        awk '{printf "%.3f", $1 / 1e9}' "$1/cpuacct.usage"
    else
        sed 's/.*) //' "/proc/$2/stat" | awk -v hz="$TICK" '{printf "%.3f", ($12 + $13 + $14 + $15) / hz}'
    fi
}
KORV_GROUP=$(cpu_group korvane "$KORV_PID")
VS_GROUP=$(cpu_group vsftpd "$VS_PID")

# run NAME PORT PID GROUP MODE DIR: one transfer, one result line.
run() {
    local name=$1 port=$2 pid=$3 group=$4 mode=$5 dir=$6 tls=() before after speed
    [ "$mode" = tls ] && tls=(--ssl-reqd -k)
    # Every upload starts from the same state: no old copy to truncate, no dirty pages in flight.
    rm -f "$BENCH_HOME/xfer1g-up.bin"
    sync
    before=$(cpu_now "$group" "$pid")
    if [ "$dir" = RETR ]; then
        speed=$(curl -sS "${tls[@]}" -o /dev/null -w '%{speed_download}' \
            "ftp://$USERPASS@127.0.0.1:$port/xfer1g.bin")
    else
        speed=$(curl -sS "${tls[@]}" -T "$SRCFILE" -w '%{speed_upload}' \
            "ftp://$USERPASS@127.0.0.1:$port/xfer1g-up.bin")
        cmp -s "$SRCFILE" "$BENCH_HOME/xfer1g-up.bin" || echo "xfer1g.sh: $name $mode STOR copy differs" >&2
    fi
    # vsftpd's session processes end after the reply: wait until the listener has reaped them.
    for _ in $(seq 100); do pgrep -P "$pid" >/dev/null || break; sleep 0.1; done
    sleep 0.2
    after=$(cpu_now "$group" "$pid")
    awk -v n="$name" -v m="$mode" -v d="$dir" -v s="$speed" -v a="$after" -v b="$before" \
        'BEGIN { printf "%-8s %-5s %-4s %10.1f MB/s %7.2f CPU s\n", n, m, d, s / 1e6, a - b }'
}

echo "$SIZE_MIB MiB over loopback, $(nproc) cores, $(date -u +%Y-%m-%dT%H:%MZ), commit $(git -C "$SRC" rev-parse --short HEAD)"
for _ in $(seq "$ROUNDS"); do
    for mode in plain tls; do
        for dir in RETR STOR; do
            run korvane "$KORV_PORT" "$KORV_PID" "$KORV_GROUP" "$mode" "$dir"
            run vsftpd "$VS_PORT" "$VS_PID" "$VS_GROUP" "$mode" "$dir"
        done
    done
done | tee "$OUT/result.txt"
