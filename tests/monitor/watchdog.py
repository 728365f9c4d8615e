"""The monitor end to end, with the real binary detached as a daemon.

One scenario per run (the CTest entries run them side by side):
  kill     SIGKILL of the server: a new server answers, crash1.log holds the
           logs, and the manager's mail reaches an SMTP server on loopback
           (over STARTTLS) with the log's lines dot-stuffed through and both
           recipients.
  lockup   a server that accepts but never greets (-debug lockup_now) is
           ended and restarted; a relay that is down is logged, not fatal.
  deadlock a lock held for ever (-debug mutex_loop) ends in the lock report
           (the lock limit shortened through KORV_TEST_LOCK_SECONDS), a
           restart, and a mail in clear to a relay without STARTTLS.
  notify   under a service manager (NOTIFY_SOCKET, in the foreground): READY=1,
           WATCHDOG=1 from the idle tick, STOPPING=1 at SIGTERM; no monitor.
  stop     -stop and SIGTERM end the server and, through mon.exit, its
           monitor; a second monitor takes over from the first; mon.exit
           found at a monitor's start is removed, not obeyed.
Every process a scenario starts is ended by its pid at the end.
"""
import base64
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "conformance"))
import harness  # noqa: E402

BINARY = None
WEB = None  # the repository's page files, which the admin pages render
ADMIN_PASSWORD = "Watch-dog-9"
BACK_WITHIN = 75  # seconds: a check every 30 s, three probes, the restart


def wait_for(what, seconds, step=0.2):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        got = what()
        if got:
            return got
        time.sleep(step)
    return what()


def alive(pid):
    if pid <= 0:
        return False
    try:
        os.kill(pid, 0)
    except OSError:
        return False
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def read(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return ""


class Relay:
    """A real SMTP server on loopback that keeps what it receives (recipients,
    text, whether it came over TLS); with `tls` it offers STARTTLS with a
    self-signed certificate."""

    def __init__(self, tls=False):
        from aiosmtpd.controller import Controller
        self.messages = []
        self.dir = tempfile.mkdtemp(prefix="korv-relay-")
        outer = self

        class Handler:
            async def handle_DATA(self, server, session, envelope):
                outer.messages.append((envelope.rcpt_tos, envelope.content.decode("utf-8", "replace"),
                                       session.ssl is not None))
                return "250 OK"

        kw = {}
        if tls:
            import ssl
            key, cert = os.path.join(self.dir, "key.pem"), os.path.join(self.dir, "cert.pem")
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=relay",
                            "-days", "1", "-keyout", key, "-out", cert], check=True, capture_output=True)
            ctx = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            ctx.load_cert_chain(cert, key)
            kw = {"tls_context": ctx, "require_starttls": False}
        self.port = harness.free_port()
        self.controller = Controller(Handler(), hostname="127.0.0.1", port=self.port, **kw)
        self.controller.start()

    def stop(self):
        self.controller.stop()
        shutil.rmtree(self.dir, ignore_errors=True)


class Daemon:
    """A home with a configuration for a detached server watched by its monitor."""

    def __init__(self, relay_port, debug=False, env=None):
        self.dir = tempfile.mkdtemp(prefix="korv-watch-")
        os.chmod(self.dir, 0o755)
        self.ftp, self.implicit = harness.free_ftp_ports(2)
        self.mgr = harness.free_port()
        self.debug = debug
        self.env = dict(os.environ, **(env or {}))
        self.env.pop("NOTIFY_SOCKET", None)
        os.makedirs(self.path("pub"))
        with open(self.path("pub/file.txt"), "w") as f:
            f.write("watched\n")
        with open(self.path("korvane.ini"), "w") as f:
            f.write(f"""global_settings
\thome "{self.dir}"
\tlog_level "info"
\tglobal_port "{self.ftp}"
\tglobal_implicit_port "{self.implicit}"
\tglobal_mgr_port "{self.mgr}"
\tglobal_mgr_ssl_port "0"
\tglobal_restart "true"
\tglobal_smtp "127.0.0.1:{relay_port}"
vdomain address="" name="watch"
\temail "manager@example.com, deputy@example.com"
\tclass type="anonymous" users="" name="anonymous" class_name="anonymous"
\t\tdir alias="/" path="{self.dir}/pub" read="true"
""")
        os.symlink(WEB, self.path("web"))
        subprocess.run([BINARY, "-config", self.path("korvane.ini"), "-password"], input=(ADMIN_PASSWORD + "\n").encode(),
                       check=True, stdout=subprocess.DEVNULL, env=self.env)
        self.pids = set()

    def path(self, rel):
        return os.path.join(self.dir, rel)

    def pid(self, name="korvane.pid"):
        try:
            return int(read(self.path(name)).split()[0])
        except (IndexError, ValueError):
            return 0

    def greets(self):
        try:
            with socket.create_connection(("127.0.0.1", self.ftp), timeout=3) as s:
                return s.recv(100).startswith(b"220")
        except OSError:
            return False

    def start(self):
        args = [BINARY, "-config", self.path("korvane.ini")] + (["-debug"] if self.debug else [])
        # The first process detaches and leaves at once.
        subprocess.run(args, cwd=self.dir, env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       timeout=30, check=True)
        assert wait_for(lambda: self.pid() and self.greets(), 30), "server did not answer\n" + self.logs()
        assert wait_for(lambda: alive(self.pid("monitor.pid")), 15), "no monitor\n" + self.logs()
        self.note_pids()
        return self.pid()

    def note_pids(self):
        for name in ("korvane.pid", "monitor.pid"):
            if self.pid(name):
                self.pids.add(self.pid(name))

    def admin(self, cmd):
        auth = base64.b64encode(("admin:" + ADMIN_PASSWORD).encode()).decode()
        with socket.create_connection(("127.0.0.1", self.mgr), timeout=10) as s:
            s.sendall(f"GET /cgi/korvanemgr.cgi?cmd={cmd} HTTP/1.0\r\nAuthorization: Basic {auth}\r\n\r\n".encode())
            s.settimeout(10)
            out = b""
            try:
                while True:
                    b = s.recv(4096)
                    if not b:
                        break
                    out += b
            except OSError:
                pass
            return out.decode(errors="replace")

    def logs(self):
        return "".join("\n==== %s\n%s" % (n, read(self.path(n))[-3000:])
                       for n in ("korvane.log", "monitor.log", "startstop.log"))

    def back_after(self, old_pid):
        """The new server's pid once it answers, or 0."""
        def new_server():
            p = self.pid()
            return p if p and p != old_pid and alive(p) and self.greets() else 0
        got = wait_for(new_server, BACK_WITHIN, step=0.5)
        self.note_pids()
        return got

    def end(self):
        """Ends everything this home started, by pid; removes the home unless KEEP is set."""
        open(self.path("mon.exit"), "a").close()
        self.note_pids()
        for p in self.pids:
            if alive(p):
                os.kill(p, signal.SIGKILL)
        wait_for(lambda: not any(alive(p) for p in self.pids), 10)
        if not os.environ.get("KORV_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)


class Watchdog(unittest.TestCase):
    def setUp(self):
        self.relay = None
        self.homes = []

    def tearDown(self):
        for h in self.homes:
            if self._outcome and not all(e is None for _, e in getattr(self._outcome, "errors", [])):
                print(h.logs())
            h.end()
        if self.relay:
            self.relay.stop()

    def home(self, **kw):
        h = Daemon(**kw)
        self.homes.append(h)
        return h

    def test_kill(self):
        self.relay = Relay(tls=True)
        h = self.home(relay_port=self.relay.port)
        old = h.start()
        os.kill(old, signal.SIGKILL)
        # Lines a relay would take for the end of the text, or strip a dot from.
        with open(h.path("korvane.log"), "a") as f:
            f.write("\n.\n.hidden line\n")
        new = h.back_after(old)
        self.assertTrue(new, "no new server\n" + h.logs())
        record = read(h.path("crash1.log"))
        self.assertTrue(record.startswith("    Version "), record[:200])
        self.assertIn("WRITING FILE %s" % h.path("korvane.log"), record)
        # What the killed server had written (its last buffered lines are lost with it).
        self.assertIn("Starting - built on", record)
        self.assertIn(".hidden line", record)
        self.assertIn("WRITING FILE startstop.log", record)
        self.assertFalse(os.path.exists(h.path("crash2.log")))
        # The new server serves.
        import ftplib
        f = ftplib.FTP()
        f.connect("127.0.0.1", h.ftp, timeout=10)
        f.login("anonymous", "x@example.com")
        got = []
        f.retrbinary("RETR file.txt", got.append)
        f.quit()
        self.assertEqual(b"".join(got), b"watched\n")
        self.assertTrue(wait_for(lambda: self.relay.messages, 30), "no mail\n" + h.logs())
        rcpts, text, tls = self.relay.messages[0]
        self.assertTrue(tls, "the relay offered STARTTLS")
        self.assertEqual(sorted(rcpts), ["deputy@example.com", "manager@example.com"])
        self.assertIn("Restarting Server 1 times so far", text)
        self.assertIn("has restarted", text)
        lines = text.splitlines()
        self.assertIn(".", lines)
        self.assertIn(".hidden line", lines)
        self.assertIn("Starting - built on", text)

    def test_lockup(self):
        down = harness.free_port()  # no relay there
        h = self.home(relay_port=down, debug=True)
        old = h.start()
        page = h.admin("lockup_now")
        self.assertIn("Diagnostic command lockup_now run.", page)
        # Connections are still accepted, but no greeting comes.
        with socket.create_connection(("127.0.0.1", h.ftp), timeout=10) as s:
            s.settimeout(3)
            try:
                first = s.recv(100)
            except socket.timeout:
                first = b""
            self.assertEqual(first, b"")
        new = h.back_after(old)
        self.assertTrue(new, "no new server\n" + h.logs())
        self.assertFalse(alive(old))
        mon = read(h.path("monitor.log"))
        self.assertIn("Could not open link again", mon)
        self.assertTrue(os.path.exists(h.path("crash1.log")))
        self.assertTrue(wait_for(lambda: "Could not open link to alert manager - second time"
                                 in read(h.path("monitor.log")), 30), h.logs())
        # It keeps watching: the monitor is the same process and still runs.
        self.assertTrue(alive(h.pid("monitor.pid")))

    def test_deadlock(self):
        self.relay = Relay()
        h = self.home(relay_port=self.relay.port, debug=True, env={"KORV_TEST_LOCK_SECONDS": "4"})
        old = h.start()
        h.admin("mutex_loop")
        self.assertTrue(wait_for(lambda: not alive(old), 30), "the lock limit did not end the server\n" + h.logs())
        new = h.back_after(old)
        self.assertTrue(new, "no new server\n" + h.logs())
        record = read(h.path("crash1.log"))
        self.assertIn("Cannot get mutex, fatal problem, dieing", record)
        self.assertIn("LOOP", record)
        # A relay without STARTTLS gets the mail in clear.
        self.assertTrue(wait_for(lambda: self.relay.messages, 30), "no mail\n" + h.logs())
        self.assertFalse(self.relay.messages[0][2])
        self.assertIn("Cannot get mutex", self.relay.messages[0][1])

    def test_stop(self):
        relay = harness.free_port()
        # -stop, then SIGTERM, each in its own home.
        for how in ("stop", "term"):
            h = self.home(relay_port=relay)
            server = h.start()
            monitor = h.pid("monitor.pid")
            if how == "stop":
                subprocess.run([BINARY, "-config", h.path("korvane.ini"), "-stop"], cwd=h.dir,
                               stdout=subprocess.DEVNULL, check=True, timeout=30)
            else:
                os.kill(server, signal.SIGTERM)
            self.assertTrue(wait_for(lambda: not alive(server), 30), how + h.logs())
            self.assertTrue(wait_for(lambda: not alive(monitor), 15), how + h.logs())
            self.assertIn("closing monitor", read(h.path("monitor.log")))
            self.assertFalse(os.path.exists(h.path("crash1.log")), how)
            self.assertFalse(os.path.exists(h.path("korvane.pid")), how)

        # Two monitors, no server: mon.exit at start is removed, a newer
        # monitor takes over, and mon.exit ends the one left.
        h = self.home(relay_port=relay)
        open(h.path("mon.exit"), "a").close()
        line = [BINARY, "-config", h.path("korvane.ini"), "-monitor", "1", "-smtp", "127.0.0.1", "-manager",
                "root@localhost", "-ip_to_scan", "127.0.0.1", "-restart"]
        first = subprocess.Popen(line, cwd=h.dir, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=h.env)
        h.pids.add(first.pid)
        self.assertTrue(wait_for(lambda: h.pid("monitor.pid") == first.pid, 15))
        self.assertIn("mon.exit sucessully deleted by monitor startup", read(h.path("monitor.log")))
        self.assertFalse(os.path.exists(h.path("mon.exit")))
        second = subprocess.Popen(line, cwd=h.dir, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=h.env)
        h.pids.add(second.pid)
        self.assertEqual(first.wait(40), 0)
        self.assertIn("Monitor shutting down as monitor.pid changed", read(h.path("monitor.log")))
        self.assertEqual(h.pid("monitor.pid"), second.pid)
        self.assertIsNone(second.poll())
        open(h.path("mon.exit"), "a").close()
        self.assertEqual(second.wait(40), 0)
        self.assertIn("Found mon.exit", read(h.path("monitor.log")))

    def test_notify(self):
        h = self.home(relay_port=harness.free_port())
        sock_path = h.path("notify.sock")
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(sock_path)
        sock.settimeout(1)
        env = dict(h.env, NOTIFY_SOCKET=sock_path)
        proc = subprocess.Popen([BINARY, "-test", "-config", h.path("korvane.ini")], cwd=h.dir, env=env,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        h.pids.add(proc.pid)
        seen = []

        def until(state, seconds):
            deadline = time.monotonic() + seconds
            while state not in seen and time.monotonic() < deadline:
                try:
                    seen.append(sock.recv(200).decode())
                except socket.timeout:
                    pass
            return state in seen

        try:
            self.assertTrue(until("READY=1", 30), seen)
            self.assertTrue(h.greets())
            self.assertTrue(until("WATCHDOG=1", 15), seen)
            proc.send_signal(signal.SIGTERM)
            self.assertTrue(until("STOPPING=1", 15), seen)
            self.assertEqual(proc.wait(30), 0)
            # A server in the foreground leaves watching to the service manager.
            self.assertFalse(os.path.exists(h.path("monitor.pid")))
        finally:
            sock.close()


if __name__ == "__main__":
    BINARY = os.path.abspath(sys.argv[1])
    WEB = os.path.abspath(sys.argv[2])
    scenario = sys.argv[3]
    suite = unittest.TestSuite([Watchdog("test_" + scenario)])
    ok = unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful()
    sys.exit(0 if ok else 1)
