#!/usr/bin/env python3
"""The web administration in a real browser (headless Chromium), used as an
administrator uses it: log in, watch a held FTP session on the status page,
read the log, stop and start the FTP port, make a module user, log in with it
over FTP and delete it, and look at every settings page. Each test saves
screenshots under --shots.

    admin_pages.py --binary build/korvane --omauth build/omauth \
                   --web web --shots build/screenshots [unittest args]

Exits 77 (a skip for CTest) with the reason printed when chromium,
chromedriver or the selenium module cannot be found.
"""
import argparse
import ftplib
import os
import socket
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "conformance"))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "report"))

import harness  # noqa: E402
from person import Person, find_browser  # noqa: E402

SKIP = 77
SERVER = None
ADMIN_PASSWORD = "Adm1n-Browser-Pw"
FTP_USER, FTP_PASSWORD = "alice", "Alice-Pass-1"
NEW_USER = ("bob", "Bob-Pass-2")
CLASSES = """\tclass type="real" users="*" name="real" class_name="Real users"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
"""


class Server(harness.Server):
    """The harness's server with the repository's page files and an admin password."""

    def __init__(self, binary, omauth, web):
        super().__init__(binary, omauth, {FTP_USER: FTP_PASSWORD}, CLASSES, prefix="korv-browser-")
        os.symlink(web, self.path("web"))
        # The home of the user the test makes on the users page.
        os.makedirs(self.path("home/" + NEW_USER[0]))
        os.chmod(self.path("home/" + NEW_USER[0]), 0o777)
        self.mail = start_mail_sink(self.path("mail"))
        if self.mail:
            with open(self.path("korvane.ini")) as f:
                cfg = f.read()
            cfg = cfg.replace("global_settings\n", 'global_settings\n\tglobal_smtp "127.0.0.1:%d"\n' % self.mail[1], 1)
            with open(self.path("korvane.ini"), "w") as f:
                f.write(cfg)
        # What an installer does: korvane -password reads the password from its input.
        subprocess.run([binary, "-config", self.path("korvane.ini"), "-password"],
                       input=(ADMIN_PASSWORD + "\n").encode(), check=True, stdout=subprocess.DEVNULL)

    def admin_url(self):
        return "http://127.0.0.1:%d/" % self.ports["mgr"]


def start_mail_sink(out):
    """A real SMTP server on loopback for the reports, or None without aiosmtpd:
    (controller, port); messages land in `out` as 1.eml, 2.eml, ..."""
    try:
        from aiosmtpd.controller import Controller
        import smtp_sink
    except ImportError:
        return None
    os.makedirs(out)
    for _ in range(20):
        port = smtp_sink.free_port()
        c = Controller(smtp_sink.Sink(out, None), hostname="127.0.0.1", port=port)
        try:
            c.start()
            return c, port
        except Exception:
            time.sleep(0.05)
    return None


def ftp_login(user, password):
    f = ftplib.FTP()
    f.connect("127.0.0.1", SERVER.ports["ftp"], timeout=10)
    try:
        f.login(user, password)
    except BaseException:
        f.close()
        raise
    return f


def ftp_refused():
    """True when nothing answers on the FTP port."""
    try:
        with socket.create_connection(("127.0.0.1", SERVER.ports["ftp"]), timeout=5) as s:
            return not s.recv(100).startswith(b"220")
    except OSError:
        return True


def wait_for(what, seconds=15):
    """Waits for a state the server reaches after the page went out (the page
    is sent before the action); the result is what the test asserts."""
    deadline = time.monotonic() + seconds
    while not what() and time.monotonic() < deadline:
        time.sleep(0.1)
    return what()


class AdminInBrowser(unittest.TestCase):
    person = None

    @classmethod
    def setUpClass(cls):
        cls.person = Person(BROWSER[0], BROWSER[1], SERVER.admin_url(), "admin", ADMIN_PASSWORD, SHOTS)

    @classmethod
    def tearDownClass(cls):
        if cls.person:
            cls.person.close()

    def assertReadable(self, what):
        """The page a person sees: styled, no stray template bars, no broken images."""
        p = self.person
        text = p.text()
        self.assertNotRegex(text, r"\|\||\|[a-z_]{2,}\|", what + ": template text left on the page")
        self.assertNotIn("No such template", text, what)
        self.assertTrue(p.looks_styled(), what + ": the stylesheet did not apply")
        self.assertEqual(p.broken_images(), [], what)
        return text

    def test_a_status_shows_a_held_session(self):
        with ftp_login(FTP_USER, FTP_PASSWORD) as held:
            held.cwd("/")
            p = self.person
            p.open("cmd=status")
            self.assertIn("Status", p.title())
            text = self.assertReadable("status")
            self.assertIn(FTP_USER, text)
            p.shoot("status")
            self.assertTrue(p.nav_beside_content(), "a side bar on a wide screen")
            with p.phone():
                p.shoot("status_phone")
                self.assertFalse(p.nav_beside_content(), "the sections wrap above the page on a phone")
                self.assertIn(FTP_USER, p.text(), "the phone's width shows the same page")

    def test_b_log_page_shows_the_logins(self):
        with ftp_login(FTP_USER, FTP_PASSWORD):
            pass
        p = self.person
        p.open()
        p.go("Log")
        text = self.assertReadable("log")
        self.assertIn("Log", p.heading())
        self.assertIn(FTP_USER, text)
        p.shoot("log")

    def test_c_stop_and_start_the_ftp_port(self):
        p = self.person
        p.open()
        p.go("Server on/off")
        self.assertReadable("on/off")
        p.shoot("onoff")
        p.press(STOP_BUTTON)
        self.assertIn("Stopping FTP Port Now.", p.text())
        self.assertTrue(wait_for(ftp_refused), "an FTP client still gets in after the stop")
        p.open("cmd=status")
        self.assertIn("FTP Ports Disabled!", p.text())
        p.shoot("onoff_stopped")
        p.go("Server on/off")
        p.press(START_BUTTON)
        self.assertIn("Starting FTP Port Now.", p.text())
        self.assertTrue(wait_for(lambda: not ftp_refused()), "the FTP port did not open again")
        with ftp_login(FTP_USER, FTP_PASSWORD) as f:
            self.assertTrue(f.pwd().startswith("/"))
        p.open("cmd=status")
        self.assertNotIn("FTP Ports Disabled!", p.text())

    def test_d_make_a_module_user_and_remove_it(self):
        name, password = NEW_USER
        p = self.person
        p.open()
        p.go("Users")
        self.assertReadable("users")
        for label, value in USER_FIELDS(name, password):
            p.type(label, value)
        p.shoot("user_form")
        p.press(USER_CREATE)
        self.assertIn("Created %s." % name, self.assertReadable("user created"))
        with ftp_login(name, password) as f:
            self.assertTrue(f.pwd().startswith("/"))
        p.shoot("user_created")
        p.open("cmd=user_admin")
        p.type(USER_NAME_LABEL, name)
        p.press(USER_DELETE)
        self.assertIn("Deleted %s." % name, p.text())
        with self.assertRaises(ftplib.error_perm):
            ftp_login(name, password).quit()

    def test_e_domain_tree(self):
        p = self.person
        p.open()
        p.go("Domains")
        self.assertReadable("domains")
        text = p.text()
        self.assertIn("conf", text)
        self.assertIn("Real users", text)
        p.shoot("domains")

    def settings_page(self, query, what):
        """Opens a settings page and checks that it reads as one."""
        p = self.person
        p.open(query)
        self.assertReadable(what)
        return p

    def test_f_global_settings(self):
        p = self.settings_page("cmd=global", "the global settings page")
        self.assertEqual(p.field("FTP port").get_attribute("value"), str(SERVER.ports["ftp"]))
        self.assertEqual(p.field("Admin port").get_attribute("value"), str(SERVER.ports["mgr"]))
        p.shoot("global")
        p.press("Save settings")
        self.assertEqual(p.field("FTP port").get_attribute("value"), str(SERVER.ports["ftp"]),
                         "a save without changes keeps the values")

    def test_g_domain_and_class(self):
        p = self.settings_page("cmd=domain&domainid=0", "the domain page")
        self.assertEqual(p.field("Name").get_attribute("value"), "conf")
        self.assertEqual(p.field("Administrator email").get_attribute("value"), "admin@localhost")
        p.shoot("domain")
        p.go("Real users")
        self.assertReadable("class")
        self.assertEqual(p.field("Class name").get_attribute("value"), "Real users")
        p.shoot("class")
        with p.phone():
            p.shoot("class_phone")

    def by_name(self, name):
        from selenium.webdriver.common.by import By
        return self.person.driver.find_element(By.NAME, name)

    def set_box(self, name, on):
        box = self.by_name(name)
        if box.is_selected() != on:
            box.click()

    def fetch(self, path):
        """Downloads `path` as the FTP user: its bytes and the seconds it took."""
        got = []
        with ftp_login(FTP_USER, FTP_PASSWORD) as f:
            started = time.monotonic()
            f.retrbinary("RETR " + path, got.append)
            return b"".join(got), time.monotonic() - started

    def test_g2_class_speed_limit_and_path_rule(self):
        """A path added and a speed limit set through the class form; a real
        download proves both, and unticking read takes the path away again."""
        shared = SERVER.path("shared")
        os.makedirs(shared, exist_ok=True)
        data = bytes(range(256)) * 24  # 6 KB: about three seconds at 2 KB/s
        with open(os.path.join(shared, "notes.bin"), "wb") as f:
            f.write(data)
        p = self.settings_page("cmd=class&domainid=0&classid=0", "the class page")
        rows = [e.get_attribute("name") for e in p.driver.find_elements("css selector", "input[name^='path_']")]
        new_row = rows[-1][len("path_"):]  # the empty row at the end adds a path
        self.by_name("alias_" + new_row).send_keys("/shared")
        self.by_name("path_" + new_row).send_keys(shared)
        self.set_box("read_" + new_row, True)
        self.set_box("write_" + new_row, False)
        p.type("Download speed", "2k bytes per second")
        p.shoot("class_edit")
        p.press("Save class")
        self.assertReadable("class after save")
        self.assertEqual(p.field("Download speed").get_attribute("value"), "2k bytes per second")
        self.assertEqual(self.by_name("alias_" + new_row).get_attribute("value"), "/shared/")
        with open(SERVER.path("korvane.ini")) as f:
            ini = f.read()
        self.assertIn('limit_speed "2k bytes per second"', ini)
        self.assertIn('dir alias="/shared/" path="%s" read="true" write="false"' % shared, ini)
        body, seconds = self.fetch("/shared/notes.bin")
        self.assertEqual(body, data)
        # The limit holds the average: 6 KB at 2 KB a second cannot come in under 1.5 s.
        self.assertGreaterEqual(seconds, 1.5, "the download was held to the class's limit")
        # Read taken away, limit lifted: the same download is refused.
        p.open("cmd=class&domainid=0&classid=0")
        self.set_box("read_" + new_row, False)
        p.type("Download speed", "Unlimited")
        p.press("Save class")
        with self.assertRaises(ftplib.error_perm):
            self.fetch("/shared/notes.bin")
        # The row is deleted by emptying its path.
        self.by_name("path_" + new_row).clear()
        p.press("Save class")
        with open(SERVER.path("korvane.ini")) as f:
            self.assertNotIn("/shared/", f.read())

    def test_g3_new_domain_and_class_editors(self):
        p = self.settings_page("cmd=domain_add&domainid=-1", "the new domain page")
        p.type("Name", "browser.example")
        p.type("Local address", "127.0.0.77")
        p.shoot("domain_new")
        p.press("Save domain")
        self.assertEqual(p.field("Name").get_attribute("value"), "browser.example")
        p.go("Add a class")
        self.assertReadable("new class")
        p.type("Class name", "Visitors")
        p.shoot("class_new")
        p.press("Save class")
        self.assertEqual(p.field("Class name").get_attribute("value"), "Visitors")
        p.press("Delete class")
        self.assertNotIn("Visitors", p.text())
        p.press("Delete domain")
        self.assertNotIn("browser.example", p.text())
        # A refused value names its field and writes nothing.
        with open(SERVER.path("korvane.ini"), "rb") as f:
            before = f.read()
        p = self.settings_page("cmd=global", "the global settings page")
        p.type("Mail server", 'mail"server')
        p.press("Save settings")
        self.assertIn("The field global_smtp holds a double quote", p.text())
        p.shoot("global_refused")
        with open(SERVER.path("korvane.ini"), "rb") as f:
            self.assertEqual(f.read(), before)

    def test_h_graph_mirrors_reports_manual(self):
        for query, heading in (("cmd=graph", "Graph"), ("cmd=mirrors", "Mirrors"), ("cmd=report_file", "Reports"),
                               ("cmd=help", "Manual"), ("cmd=dump", "Settings dump")):
            with self.subTest(query):
                p = self.person
                p.open(query)
                self.assertReadable(query)
                self.assertIn(heading, p.heading())
                p.shoot(query[4:])

    def test_j_a_report_made_on_the_page_arrives_by_send_now(self):
        if not SERVER.mail:
            self.skipTest("python3-aiosmtpd is not installed (scripts/bootstrap installs it)")
        p = self.person
        p.open()
        p.go("Reports")
        self.assertReadable("reports")
        self.assertIn("No mailed reports yet.", p.text())
        # A value with a double quote is refused and nothing is kept.
        p.type("Send to", "ops@x.example")
        p.type("File names", 'a"b')
        p.press("Add report")
        self.assertIn("holds a double quote", p.text())
        self.assertIn("No mailed reports yet.", p.text())
        p.type("Send to", "ops@x.example")
        p.type("File names", "*")
        p.shoot("report_form")
        p.press("Add report")
        text = self.assertReadable("report added")
        self.assertIn("Report added", text)
        self.assertIn("email: ops@x.example", text)
        self.assertIn("Waiting to start...", text)
        p.press("Send the chosen report now")
        text = self.assertReadable("report sent")
        self.assertIn("Report sent to the mail relay.", text)
        self.assertIn("Success.", text)
        p.shoot("report_sent")
        with open(SERVER.path("mail/1.eml"), errors="replace") as f:
            mail = f.read()
        self.assertIn("RCPT ops@x.example\n", mail)
        self.assertIn("Subject: Korvane Report conf ", mail)
        self.assertIn("This is a file transfer report generated by Korvane for conf.", mail)
        p.press("Delete the chosen report")
        self.assertIn("No mailed reports yet.", p.text())

    def test_k_mirror_job_made_in_the_browser(self):
        """A job made on the mirror pages copies a directory of this same
        server into another directory; its log and the list show the run."""
        src = SERVER.path("home/%s/src" % FTP_USER)
        os.makedirs(src + "/sub", exist_ok=True)
        files = {"a.txt": b"first file\n", "sub/b.bin": bytes(range(256)) * 40}
        for name, data in files.items():
            harness.plant(os.path.join(src, name), data)
        os.chmod(src, 0o755)
        os.chmod(src + "/sub", 0o755)
        target = SERVER.path("ftp-copy")
        p = self.person
        p.open("cmd=mirrors")
        self.assertReadable("mirrors")
        p.go("Add a mirror")
        self.assertReadable("new mirror")
        for label, value in (("Host", "127.0.0.1:%d" % SERVER.ports["ftp"]), ("User", FTP_USER),
                             ("Password", FTP_PASSWORD), ("Remote path", "/src"), ("Files", "*"),
                             ("Local directory", target), ("Every (minutes)", "60")):
            p.type(label, value)
        for label, want in (("Use TLS", False), ("Descend into sub-directories", True),
                            ("Keep the whole remote path below the local directory", False)):
            box = p.field(label)
            if box.is_selected() != want:
                box.click()
        p.shoot("mirror_form")
        p.press("Save mirror")
        text = self.assertReadable("mirror saved")
        self.assertIn("Saved job", text)
        self.assertNotIn(FTP_PASSWORD, p.driver.page_source, "the stored password stays out of the page")

        def copied():
            try:
                return all(open(os.path.join(target, n), "rb").read() == d for n, d in files.items())
            except OSError:
                return False
        self.assertTrue(wait_for(copied, 30), "the job did not copy the directory")
        p.open("cmd=mirrors")
        self.assertTrue(wait_for(lambda: (p.open("cmd=mirrors"), "Successful" in p.text())[1], 15), p.text())
        self.assertIn("127.0.0.1:%d" % SERVER.ports["ftp"], p.text())
        p.shoot("mirrors_list")

        p.go("1")
        p.press("Show log")
        log = self.assertReadable("mirror log")
        self.assertIn("Mirroring Remote File (/src/sub/b.bin)", log)
        self.assertNotIn(FTP_PASSWORD, log)
        p.shoot("mirror_log")

        # A value mirrors.dat cannot hold is refused and nothing changes.
        p.open("cmd=mirror&mid=1")
        p.type("Files", "*|x")
        p.press("Save mirror")
        self.assertIn("nothing was written", p.text())
        self.assertNotIn("*|x", open(SERVER.path("mirrors.dat")).read())
        self.assertEqual(os.stat(SERVER.path("mirrors.dat")).st_mode & 0o777, 0o600)

        p.open("cmd=mirror&mid=1")
        p.press("Delete mirror")
        self.assertIn("Mirrors", p.heading())
        self.assertNotIn("127.0.0.1:%d" % SERVER.ports["ftp"], p.text())
        self.assertEqual(open(SERVER.path("mirrors.dat")).read(), "")

    def test_i_no_password_no_page(self):
        """Without the password the browser gets the server's refusal, not a page."""
        stranger = Person(BROWSER[0], BROWSER[1], SERVER.admin_url(), "admin", "wrong-" + ADMIN_PASSWORD, SHOTS)
        try:
            stranger.open("cmd=status")
            self.assertNotIn("Status", stranger.title())
            self.assertNotIn(FTP_USER, stranger.text())
        finally:
            stranger.close()


# What the user and on/off pages call their fields and buttons.
STOP_BUTTON, START_BUTTON = "Stop FTP ports", "Start FTP ports"
USER_NAME_LABEL = "User name"
USER_CREATE, USER_DELETE = "Create", "Delete"


def USER_FIELDS(name, password):
    return ((USER_NAME_LABEL, name), ("Password", password))


BROWSER = None
SHOTS = None


def main():
    global BROWSER, SHOTS
    p = argparse.ArgumentParser(add_help=False)
    p.add_argument("--web", required=True)
    p.add_argument("--shots", required=True)
    args, rest = p.parse_known_args()
    BROWSER, reason = find_browser()
    if not BROWSER:
        print("browser tests skipped: " + reason)
        sys.exit(SKIP)
    SHOTS = os.path.abspath(args.shots)
    web = os.path.abspath(args.web)
    sys.argv = [sys.argv[0]] + rest
    harness.main(lambda binary, omauth: Server(binary, omauth, web))


if __name__ == "__main__":
    main()
