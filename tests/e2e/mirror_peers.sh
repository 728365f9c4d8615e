#!/bin/bash
# Starts another FTP server from Debian's packages on loopback for the mirror
# tests: fetched and unpacked (never installed) by bench/peers.sh, serving
# TREE read-only, user "mirror" with password "mirror-pw" (pure-ftpd) or
# anonymously (vsftpd, as the system account "daemon", whose home exists on
# every Debian system). Prints the server's pid; the caller stops it.
#
#   mirror_peers.sh SOURCE BUILD vsftpd|pure-ftpd PORT TREE RUNDIR
#
# Exits 77 with the reason on standard error when the packages cannot be had.
set -euo pipefail
[ $# -eq 6 ] || { echo "usage: mirror_peers.sh SOURCE BUILD NAME PORT TREE RUNDIR" >&2; exit 2; }
SRC=$1 BUILD=$2 NAME=$3 PORT=$4 TREE=$5 RUN=$6
ROOT=$BUILD/bench/peers/root
LIBS=$ROOT/usr/lib/x86_64-linux-gnu:$ROOT/lib/x86_64-linux-gnu

if ! "$SRC/bench/peers.sh" fetch "$BUILD" >"$RUN/fetch.log" 2>&1; then
    echo "the peer servers could not be fetched: $(tail -1 "$RUN/fetch.log")" >&2
    exit 77
fi
[ "$(id -u)" -eq 0 ] || { echo "the peer servers switch users and need root" >&2; exit 77; }
mkdir -p "$RUN"

case "$NAME" in
vsftpd)
    mkdir -p "$RUN/empty"
    cat >"$RUN/vsftpd.conf" <<CONF
listen=YES
listen_ipv6=NO
listen_address=127.0.0.1
listen_port=$PORT
background=NO
anonymous_enable=YES
no_anon_password=YES
anon_root=$TREE
ftp_username=daemon
local_enable=NO
write_enable=NO
use_localtime=YES
seccomp_sandbox=NO
secure_chroot_dir=$RUN/empty
vsftpd_log_file=$RUN/vsftpd.log
CONF
    LD_LIBRARY_PATH=$LIBS "$ROOT/usr/sbin/vsftpd" "$RUN/vsftpd.conf" </dev/null >"$RUN/vsftpd.out" 2>&1 &
    ;;
pure-ftpd)
    printf 'mirror-pw\nmirror-pw\n' | LD_LIBRARY_PATH=$LIBS "$ROOT/usr/bin/pure-pw" useradd mirror \
        -f "$RUN/pureftpd.passwd" -F "$RUN/pureftpd.pdb" -u 65534 -g 65534 -d "$TREE" -m >/dev/null
    LD_LIBRARY_PATH=$LIBS "$ROOT/usr/sbin/pure-ftpd" -S "127.0.0.1,$PORT" -4 -E -H -A -u 1 \
        -l "puredb:$RUN/pureftpd.pdb" </dev/null >"$RUN/pure-ftpd.out" 2>&1 &
    ;;
*)
    echo "unknown server $NAME" >&2
    exit 2
    ;;
esac
PID=$!
for _ in $(seq 50); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$PORT") 2>/dev/null; then
        echo "$PID"
        exit 0
    fi
    kill -0 "$PID" 2>/dev/null || break
    sleep 0.1
done
echo "$NAME did not come up on port $PORT: $(cat "$RUN/$NAME.out")" >&2
kill "$PID" 2>/dev/null || true
exit 1
