#!/bin/bash
# Brings the peer FTP servers (vsftpd, pure-ftpd, proftpd) up on loopback for the benchmark, and
# stops them again by process id. Nothing is installed: the Debian packages are fetched with
# `apt-get download` and unpacked with `dpkg -x` under BUILD/bench/peers.
#
#   bench/peers.sh start BUILD     fetch (once), configure, start; prints "name port pid" lines
#   bench/peers.sh stop BUILD      stop every peer started from BUILD
#   bench/peers.sh fetch BUILD     fetch and unpack only
#
# The test account is a system account made with useradd (root only): user korvbench, password
# korvbench, home BENCH_HOME (default BUILD/bench/home/korvbench). Every peer and Korvane log it in.
set -euo pipefail

BENCH_USER=${BENCH_USER:-korvbench}
BENCH_PASS=${BENCH_PASS:-korvbench}
VSFTPD_PORT=${VSFTPD_PORT:-2221}
PUREFTPD_PORT=${PUREFTPD_PORT:-2321}
PROFTPD_PORT=${PROFTPD_PORT:-2421}
PEERS="vsftpd pure-ftpd proftpd"

# The servers and the shared libraries they need beyond a build machine's own packages.
PACKAGES="vsftpd pure-ftpd proftpd-core proftpd-mod-crypto libwrap0 libhiredis0.14 libmemcached11 \
libmemcachedutil2 libhashkit2 libpcre2-posix3"

die() { echo "peers.sh: $*" >&2; exit 1; }

[ $# -ge 2 ] || die "usage: peers.sh start|stop|fetch BUILD"
ACTION=$1
BUILD=$(cd "$2" && pwd)
DIR=$BUILD/bench/peers
ROOT=$DIR/root
RUN=$DIR/run
HOME_DIR=${BENCH_HOME:-$BUILD/bench/home/$BENCH_USER}
TLS=$BUILD/bench/tls
LIBS=$ROOT/usr/lib/x86_64-linux-gnu:$ROOT/lib/x86_64-linux-gnu

fetch() {
    [ -x "$ROOT/usr/sbin/vsftpd" ] && [ -x "$ROOT/usr/sbin/pure-ftpd" ] && [ -x "$ROOT/usr/sbin/proftpd" ] &&
        [ -f "$ROOT/usr/lib/proftpd/mod_tls.so" ] && return 0
    command -v apt-get >/dev/null || die "apt-get is needed to fetch the peers"
    mkdir -p "$DIR/debs" "$ROOT"
    # apt's download user cannot write into a root-owned build tree; the files stay ours either way.
    # apt's progress goes to stderr: stdout carries only the "name port pid" lines callers parse.
    (cd "$DIR/debs" && apt-get download $PACKAGES 2>&1 | grep -v "^W: Download is performed unsandboxed" >&2 ||
        { apt-get update >/dev/null && apt-get download $PACKAGES >&2; })
    for deb in "$DIR"/debs/*.deb; do dpkg -x "$deb" "$ROOT"; done
    local missing
    for bin in vsftpd pure-ftpd proftpd; do
        missing=$(LD_LIBRARY_PATH=$LIBS ldd "$ROOT/usr/sbin/$bin" | grep "not found" || true)
        [ -z "$missing" ] || die "$bin needs libraries that are not unpacked: $missing"
    done
}

account() {
    [ "$(id -u)" -eq 0 ] || die "the peers run as root (they switch to the test account); run as root"
    mkdir -p "$HOME_DIR"
    if ! getent passwd "$BENCH_USER" >/dev/null; then
        useradd -M -d "$HOME_DIR" -s /bin/bash "$BENCH_USER"
    elif [ "$(getent passwd "$BENCH_USER" | cut -d: -f6)" != "$HOME_DIR" ]; then
        usermod -d "$HOME_DIR" "$BENCH_USER"
    fi
    # SHA-512 crypt: the hash that every server computes at each login stays a small, equal share
    # of a login (yescrypt, Debian's default, costs 20 to 40 ms and would hide the servers).
    echo "$BENCH_USER:$BENCH_PASS" | chpasswd -c SHA512
    chown "$BENCH_USER:" "$HOME_DIR"
    chmod 755 "$HOME_DIR"
    # Every directory above the home must let the account through.
    local d=$HOME_DIR
    while [ "$d" != / ]; do d=$(dirname "$d"); chmod o+x "$d"; done
}

certificate() {
    mkdir -p "$TLS"
    [ -f "$TLS/cert.pem" ] && [ -f "$TLS/key.pem" ] && return 0
    openssl req -x509 -newkey rsa:2048 -nodes -days 365 -subj /CN=localhost \
        -keyout "$TLS/key.pem" -out "$TLS/cert.pem" 2>/dev/null
    chmod 600 "$TLS/key.pem"
    cat "$TLS/key.pem" "$TLS/cert.pem" >"$TLS/both.pem"
    chmod 600 "$TLS/both.pem"
}

write_configs() {
    mkdir -p "$RUN/vsftpd-empty"
    cat >"$RUN/vsftpd.conf" <<EOF
listen=YES
listen_ipv6=NO
listen_address=127.0.0.1
listen_port=$VSFTPD_PORT
background=NO
anonymous_enable=NO
local_enable=YES
write_enable=YES
local_umask=022
max_clients=0
max_per_ip=0
seccomp_sandbox=NO
secure_chroot_dir=$RUN/vsftpd-empty
pam_service_name=vsftpd
check_shell=NO
ssl_enable=YES
ssl_ciphers=HIGH
ssl_tlsv1=YES
ssl_sslv2=NO
ssl_sslv3=NO
require_ssl_reuse=NO
force_local_logins_ssl=NO
force_local_data_ssl=NO
rsa_cert_file=$TLS/cert.pem
rsa_private_key_file=$TLS/key.pem
vsftpd_log_file=$RUN/vsftpd.log
EOF
    cat >"$RUN/proftpd.conf" <<EOF
ServerName "proftpd bench"
ServerType standalone
DefaultServer on
UseIPv6 off
DefaultAddress 127.0.0.1
SocketBindTight on
Port $PROFTPD_PORT
User nobody
Group nogroup
MaxInstances 2000
PidFile $RUN/proftpd.pid
ScoreboardFile $RUN/proftpd.scoreboard
DelayEngine off
UseReverseDNS off
WtmpLog off
RequireValidShell off
AuthOrder mod_auth_unix.c
SystemLog $RUN/proftpd.log
Umask 022
AllowOverwrite on
ModulePath $ROOT/usr/lib/proftpd
LoadModule mod_tls.c
<IfModule mod_tls.c>
  TLSEngine on
  TLSProtocol TLSv1.2 TLSv1.3
  TLSRSACertificateFile $TLS/cert.pem
  TLSRSACertificateKeyFile $TLS/key.pem
  TLSRequired off
  TLSVerifyClient off
  TLSOptions NoSessionReuseRequired
  TLSLog $RUN/proftpd-tls.log
</IfModule>
EOF
}

# Starts one peer in the foreground of a background job, so that $! is the server itself.
start_one() {
    local name=$1 port=$2
    shift 2
    LD_LIBRARY_PATH=$LIBS "$@" </dev/null >"$RUN/$name.out" 2>&1 &
    local pid=$!
    echo "$pid" >"$RUN/$name.pid.bench"
    # Up when the port answers; the server has five seconds.
    local i
    for i in $(seq 50); do
        if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$name $port $pid"
            return 0
        fi
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    echo "peers.sh: $name did not come up on port $port; its output:" >&2
    cat "$RUN/$name.out" >&2
    return 1
}

stop_all() {
    local name pid i
    for name in $PEERS; do
        [ -f "$RUN/$name.pid.bench" ] || continue
        pid=$(cat "$RUN/$name.pid.bench")
        rm -f "$RUN/$name.pid.bench"
        kill -TERM "$pid" 2>/dev/null || continue
        for i in $(seq 50); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -KILL "$pid" 2>/dev/null || true
    done
}

case "$ACTION" in
fetch)
    fetch
    ;;
start)
    fetch
    account
    certificate
    mkdir -p "$RUN"
    stop_all
    write_configs
    start_one vsftpd "$VSFTPD_PORT" "$ROOT/usr/sbin/vsftpd" "$RUN/vsftpd.conf"
    start_one pure-ftpd "$PUREFTPD_PORT" "$ROOT/usr/sbin/pure-ftpd" -S "127.0.0.1,$PUREFTPD_PORT" -4 -E -H \
        -l unix -c 2000 -C 2000 -u 1 -Y 1 -2 "$TLS/both.pem" -f none
    start_one proftpd "$PROFTPD_PORT" "$ROOT/usr/sbin/proftpd" -n -q -c "$RUN/proftpd.conf"
    ;;
stop)
    stop_all
    ;;
*)
    die "unknown action $ACTION"
    ;;
esac
