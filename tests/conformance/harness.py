"""The real server for tests driven by real clients.

A Server writes a configuration into a temporary directory (one domain,
"conf", with the classes the caller gives), makes the users of the bundled
authentication module, starts the binary on free loopback ports and, at the
end, stops it and reports any crash marker in its output or log.
"""
import argparse
import glob
import hashlib
import os
import random
import re
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time

import ftplib

CRASH_MARKERS = ("AddressSanitizer", "UndefinedBehaviorSanitizer", "runtime error:", "Assertion", "Segmentation")

# One line of xfer.log: date, seconds, address, bytes, "file", type, _,
# direction, kind, user, "identity", 0, *, complete or incomplete.
XFER_LINE = re.compile(r'^\w{3} \w{3} +\d+ [\d:]+ \d{4} (\d+) (\S+) (\d+) "(.*)" ([ab]) _ ([io]) ([ar]) (\S+) "(.*)" 0 \* ([ci])$')


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def port_is_free(port):
    with socket.socket() as s:
        try:
            s.bind(("127.0.0.1", port))
            return True
        except OSError:
            return False


def free_ftp_ports(count):
    """Ports whose active data connections leave from the port below them: both
    free, and above the ephemeral range (which ends at 60999 by default) where
    the clients' own sockets cannot take them in the meantime."""
    rnd = random.SystemRandom()
    chosen = []
    while len(chosen) < count:
        p = rnd.randint(61002, 65535)
        if not {p, p - 1} & {q for c in chosen for q in (c, c - 1)} and port_is_free(p) and port_is_free(p - 1):
            chosen.append(p)
    return chosen


def digest(data):
    return hashlib.sha256(data).hexdigest()


class Server:
    """`users` maps names to passwords; `classes` is the text of the domain's
    classes, where @DIR@ stands for the server's directory."""

    def __init__(self, binary, omauth, users, classes, prefix="korv-conf-"):
        self.binary = binary
        self.dir = tempfile.mkdtemp(prefix=prefix)
        # Module and anonymous users act as an unprivileged account: the tree
        # must be reachable by it, and the homes writable.
        os.chmod(self.dir, 0o755)
        self.ports = {k: free_port() for k in ("mgr", "mgr_ssl")}
        self.ports["ftp"], self.ports["implicit"] = free_ftp_ports(2)
        self.proc = None
        users_file = self.path("users")
        for name, pw in users.items():
            subprocess.run([omauth, "-passwd", users_file, name], input=(pw + "\n").encode(), check=True,
                           stdout=subprocess.DEVNULL)
            os.makedirs(self.path("home/" + name), exist_ok=True)
            os.chmod(self.path("home/" + name), 0o777)
        cfg = f"""global_settings
\thome "{self.dir}"
\tlog_level "info"
\tglobal_port "{self.ports['ftp']}"
\tglobal_implicit_port "{self.ports['implicit']}"
\tglobal_mgr_port "{self.ports['mgr']}"
\tglobal_mgr_ssl_port "{self.ports['mgr_ssl']}"
\tglobal_restart "false"
\tauthent_process "{omauth}"
\tauthent_cmdopts "-file {users_file}"
vdomain address="" name="conf"
\temail "admin@localhost"
"""
        with open(self.path("korvane.ini"), "w") as f:
            f.write(cfg + classes.replace("@DIR@", self.dir))

    def path(self, rel):
        return os.path.join(self.dir, rel)

    def start(self):
        self.out = open(self.path("server.out"), "wb")
        self.err = open(self.path("server.err"), "wb")
        self.proc = subprocess.Popen([self.binary, "-test", "-config", self.path("korvane.ini")],
                                     stdout=self.out, stderr=self.err, cwd=self.dir)
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("server ended at start:\n" + self.stderr())
            try:
                with socket.create_connection(("127.0.0.1", self.ports["ftp"]), timeout=2) as s:
                    if s.recv(100).startswith(b"220"):
                        return
            except OSError:
                time.sleep(0.1)  # the process is still binding its ports
        raise RuntimeError("server did not answer")

    def stderr(self):
        with open(self.path("server.err"), errors="replace") as f:
            return f.read()

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(20)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.out.close()
        self.err.close()
        text = self.stderr()
        log = self.path("korvane.log")
        if os.path.exists(log):
            with open(log, errors="replace") as f:
                text += f.read()
        return [m for m in CRASH_MARKERS if m in text]

    def xfer_entries(self):
        """{real path: (bytes, complete)} of the transfer log, the last line of each file winning."""
        out = {}
        for log in glob.glob(self.path("**/xfer.log"), recursive=True):
            with open(log, errors="replace") as f:
                for line in f:
                    m = XFER_LINE.match(line.rstrip("\n"))
                    if m:
                        out[m.group(4)] = (int(m.group(3)), m.group(10) == "c")
        return out

    def wait_xfer(self, want, seconds=15):
        """The transfer log's entries, once every path of `want` has its entry
        ({path: (bytes, complete)}) or after `seconds`: the server writes the
        log through a buffer, and a file's earlier transfer may be there first."""
        deadline = time.monotonic() + seconds
        while True:
            entries = self.xfer_entries()
            if all(entries.get(p) == e for p, e in want.items()) or time.monotonic() > deadline:
                return entries
            time.sleep(0.2)


def plant(path, data):
    """A file the test puts where a user will write next (a prefix to resume or
    append to): writable by the unprivileged account users act as."""
    os.makedirs(os.path.dirname(path), mode=0o777, exist_ok=True)
    os.chmod(os.path.dirname(path), 0o777)
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o666)


class ImplicitFTP_TLS(ftplib.FTP_TLS):
    """FTP_TLS whose control connection is TLS from the first byte."""

    def connect(self, host, port, timeout=10):
        self.host, self.port, self.timeout = host, port, timeout
        raw = socket.create_connection((host, port), timeout)
        self.sock = self.context.wrap_socket(raw, server_hostname=host)
        self.af = self.sock.family
        self.file = self.sock.makefile("r", encoding=self.encoding)
        self.welcome = self.getresp()
        return self.welcome


def insecure_context():
    ctx = ssl.create_default_context()
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    return ctx


def main(make_server):
    """The command line of a suite: --binary and --omauth make the server
    (`make_server(binary, omauth)`), the rest goes to unittest. Returns the
    server for the cases to use and exits with the suite's status."""
    p = argparse.ArgumentParser()
    p.add_argument("--binary", required=True)
    p.add_argument("--omauth", required=True)
    args, rest = p.parse_known_args()
    server = make_server(os.path.abspath(args.binary), os.path.abspath(args.omauth))
    sys.modules["__main__"].SERVER = server
    sys.exit(run_suite(server, [sys.argv[0]] + rest))


def run_suite(server, argv):
    """Starts `server`, runs the unittest cases of __main__ and stops it; exit status 0 on success."""
    import unittest
    ok = False
    try:
        server.start()
        prog = unittest.main(argv=argv, exit=False, verbosity=2)
        ok = prog.result.wasSuccessful()
    finally:
        found = server.stop()
        if found:
            print("server log holds crash markers: %s (in %s)" % (found, server.dir))
            ok = False
        elif ok:
            import shutil
            shutil.rmtree(server.dir, ignore_errors=True)
        else:
            print("server directory kept: " + server.dir)
    return 0 if ok else 1
