#!/usr/bin/env python3
"""The settings editors end to end: forms posted to the real server as a
browser posts them, and korvane.ini read back line by line; refusals that
leave the file byte-identical; domains and classes made, renumbered and
deleted; a saved change seen by the next FTP session while an older one keeps
its view; the dump and the manual.

    settings_forms.py --binary build/korvane --omauth build/omauth --web web
"""
import argparse
import base64
import ftplib
import html.parser
import http.client
import os
import re
import socket
import subprocess
import sys
import unittest
import urllib.parse

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "conformance"))
import harness  # noqa: E402

SERVER = None
HOMES = None
WEB = None
ADMIN_PASSWORD = "Settings-Pw-1"
FTP_USER, FTP_PASSWORD = "alice", "Alice-Pass-1"
CLASSES = """\tclass type="real" users="*" name="real" class_name="Real users"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
"""


class Server(harness.Server):
    def __init__(self, binary, omauth):
        super().__init__(binary, omauth, {FTP_USER: FTP_PASSWORD}, CLASSES, prefix="korv-settings-")
        self.omauth = omauth
        os.symlink(WEB, self.path("web"))
        subprocess.run([binary, "-config", self.path("korvane.ini"), "-password"],
                       input=(ADMIN_PASSWORD + "\n").encode(), check=True, stdout=subprocess.DEVNULL)


class Form(html.parser.HTMLParser):
    """The fields of a page's settings form as a browser posts them."""

    def __init__(self, page):
        super().__init__()
        self.fields, self._select, self._first, self._area = [], None, None, None
        self._in_form = False
        self.feed(page)

    def handle_starttag(self, tag, a):
        a = dict(a)
        if tag == "form" and a.get("method") == "POST" and not self.fields:
            self._in_form = True
        if not self._in_form:
            return
        name = a.get("name")
        if tag == "input" and name and a.get("type") not in ("image", "submit"):
            if a.get("type") != "checkbox" or "checked" in a:
                self.fields.append((name, a.get("value") or ""))
        elif tag == "select":
            self._select, self._first = name, None
        elif tag == "option" and self._select:
            if self._first is None:
                self._first = a.get("value")
            if "selected" in a:
                self.fields.append((self._select, a.get("value")))
                self._first = False
        elif tag == "textarea":
            self._area = [name, ""]

    def handle_data(self, data):
        if self._area:
            self._area[1] += data

    def handle_endtag(self, tag):
        if tag == "select" and self._select:
            if self._first:
                self.fields.append((self._select, self._first))
            self._select = None
        elif tag == "textarea" and self._area:
            self.fields.append(tuple(self._area))
            self._area = None
        elif tag == "form":
            self._in_form = False


def request(method, query="", body=None, raw_headers=None):
    c = http.client.HTTPConnection("127.0.0.1", SERVER.ports["mgr"], timeout=30)
    auth = base64.b64encode(("admin:" + ADMIN_PASSWORD).encode()).decode()
    headers = {"Authorization": "Basic " + auth}
    if body is not None:
        headers["Content-Type"] = "application/x-www-form-urlencoded"
    headers.update(raw_headers or {})
    c.request(method, "/cgi/korvanemgr.cgi" + query, body=body, headers=headers)
    text = c.getresponse().read().decode("utf-8", "replace")
    c.close()
    return text


def get(query):
    return request("GET", "?" + query)


def post(fields, query=""):
    return request("POST", query, urllib.parse.urlencode(fields).encode())


def form_of(query):
    return Form(get(query)).fields


def changed(fields, **new):
    """The form with some fields replaced (None removes one, e.g. an unticked box)."""
    out = [(k, v) for k, v in fields if k not in new]
    return out + [(k, v) for k, v in new.items() if v is not None]


def ini():
    with open(SERVER.path("korvane.ini"), "rb") as f:
        return f.read()


def block(start, stop=None):
    """The lines of korvane.ini from the line starting with `start` up to (not
    including) the next starting with `stop`."""
    lines = ini().decode().split("\n")
    i = next(n for n, l in enumerate(lines) if l.lstrip().startswith(start))
    j = next((n for n in range(i + 1, len(lines)) if stop and lines[n].lstrip().startswith(stop)), len(lines))
    return [l for l in lines[i:j] if l]


def ftp_login():
    f = ftplib.FTP()
    f.connect("127.0.0.1", SERVER.ports["ftp"], timeout=10)
    f.login(FTP_USER, FTP_PASSWORD)
    return f


class GlobalPage(unittest.TestCase):
    def test_save_writes_every_line_in_order(self):
        form = form_of("cmd=global")
        page = post(changed(form, log_level="debug", global_total_users="250", global_nochmod="true",
                            global_ssl_cipher_list="HIGH:!aNULL", global_thread_reuse=None,
                            no_suffix_default_domain="on", global_login_error="Ask the desk",
                            cmd_global_save="1"))
        self.assertIn('value="250"', page, "the page shows the saved values")
        d = SERVER.dir
        self.assertEqual(block("global_settings", "vdomain"), [
            "global_settings",
            '\thome "%s" ' % d,
            '\tglobal_strip_user_domain "true" ',
            '\tauthent_process "%s" ' % SERVER.omauth,
            '\tauthent_cmdopts "-file %s/users" ' % d,
            '\tno_suffix_default_domain "TRUE" ',
            '\tlog_level "debug" ',
            '\tglobal_total_users "250" ',
            '\tglobal_login_error "Ask the desk" ',
            '\tglobal_port "%d" ' % SERVER.ports["ftp"],
            '\tglobal_mgr_port "%d" ' % SERVER.ports["mgr"],
            '\tglobal_mgr_ssl_port "%d" ' % SERVER.ports["mgr_ssl"],
            '\tglobal_ssl_cipher_list "HIGH:!aNULL" ',
            '\tglobal_ssl_disable_sslv2 "" ',
            '\tglobal_ssl_disable_tlsv1 "" ',
            '\tglobal_ssl_require_client_certificate "" ',
            '\tglobal_implicit_port "%d" ' % SERVER.ports["implicit"],
            '\tglobal_thread_reuse "" ',
            '\tglobal_nochmod "true" ',
        ])
        # The page shows the restart note beside the ports.
        self.assertIn("Restart of korvane is required for these port settings to take effect.", page)
        # The module still answers after the switch the save applied.
        with ftp_login() as f:
            f.pwd()

    def test_log_home_and_level_apply_at_once(self):
        form = form_of("cmd=global")
        logs = SERVER.path("logs2")
        self.addCleanup(lambda: post(changed(form_of("cmd=global"), log_home="", log_level="info",
                                             global_log_flush=None, cmd_global_save="1")))
        # With every line written through, what the file holds is what was logged.
        post(changed(form, log_home=logs, log_level="debug", global_log_flush="true", cmd_global_save="1"))
        get("cmd=status")  # something to log
        moved = os.path.join(logs, "korvane.log")
        self.assertTrue(os.path.exists(moved), "the main log reopened in the new directory")
        with open(moved, errors="replace") as f:
            text = f.read()
        self.assertIn("Web Thread: Query:/cgi/korvanemgr.cgi?cmd=status", text)
        self.assertIn(":dbug:", text, "debug lines are written at once")
        post(changed(form_of("cmd=global"), log_home="", cmd_global_save="1"))
        size = os.path.getsize(moved)
        get("cmd=status")
        self.assertEqual(os.path.getsize(moved), size, "back in the home, the old file gets nothing more")

    def test_refused_values_leave_the_file_alone(self):
        form = form_of("cmd=global")
        before = ini()
        for field, value in (("global_log_host", 'a"b'), ("global_smtp", "x\r\nlog_level \"debug\""),
                             ("global_noclass", "a\0b")):
            with self.subTest(field=field):
                page = post(changed(form, cmd_global_save="1", **{field: value}))
                self.assertIn("The field %s holds a double quote" % field, page)
                self.assertEqual(ini(), before, "nothing was written")


class DomainsAndClasses(unittest.TestCase):
    def class_form(self, domainid, classid):
        return form_of("cmd=class&domainid=%d&classid=%d" % (domainid, classid))

    def test_a_class_rows_and_limits(self):
        global HOMES
        HOMES = SERVER.path("home")
        rows = [("path_7", "/srv/pub"), ("alias_7", "/pub///"), ("read_7", "true"), ("nodel_7", "true"),
                ("path_0", HOMES + "/$username"), ("alias_0", "/"), ("read_0", "true"), ("write_0", "true"),
                ("path_3", ""), ("alias_3", "/gone/"),          # an emptied path deletes its row
                ("path_100", "/beyond"), ("alias_100", "/x/"),  # past the hundred rows
                ("group_499", "staff"), ("grouppath_499", "/srv/staff"), ("groupalias_499", "/staff"),
                ("groupwrite_499", "true"),
                ("group_500", "late"), ("grouppath_500", "/srv/late"),
                ("group_2", ""), ("grouppath_2", "/srv/nogroup"),  # no group: dropped
                ("find_499", "/export/home"), ("map_499", "/home"), ("find_500", "/c"), ("map_500", "/d")]
        form = [(k, v) for k, v in self.class_form(0, 0) if not re.match(r"(group)?(alias|path|read|write)_|find_|map_|group_", k)]
        page = post(changed(form + rows, limit_users="10 Users", limit_speed="Unlimited", limit_time="15 minutes",
                            limit_speed_up="200k bytes per second", banner="Hello\r\nC:\\ftp", umask="022",
                            user_home="/" + HOMES + "//", cmd_class_save="1"))
        self.assertEqual(block("class", "vdomain"), [
            '\tclass type="real" from="" users="*" groups="" name="real" class_name="Real users" ',
            '\t\tdir alias="/" path="%s/$username" read="true" write="true" nodel="false" nolist="false" '
            'nomkdir="false" ' % HOMES,
            '\t\tdir alias="/pub/" path="/srv/pub" read="true" write="false" nodel="true" nolist="false" nomkdir="false" ',
            '\t\tgroup_resource group="staff" alias="/staff/" path="/srv/staff" read="false" write="true" nodel="false" '
            'nolist="false" nomkdir="false" ',
            '\t\tlimit_speed "Unlimited" ',
            '\t\tlimit_speed_up "200k bytes per second" ',
            '\t\tlimit_mb "0" ',
            '\t\tlimit_time "15" ',
            '\t\tlimit_users "10" ',
            '\t\tlimit_peruser "0" ',
            '\t\tumask "022" ',
            '\t\tuser_home "%s/" ' % HOMES,
            '\t\tlimit_con_perip "Unlimited" ',
            '\t\tuser_impersonate "true" ',
            '\t\tftphome_map find="/export/home" map="/home" ',
            '\t\tbanner "Hello\\nC:\\\\ftp" ',
        ])
        # Read back as the page shows them: sentences atoi reads again.
        for name, shown in (("limit_users", "10 Users"), ("limit_speed", "Unlimited"), ("limit_time", "15 minutes"),
                            ("limit_speed_up", "200k bytes per second"), ("limit_mb", "Unlimited")):
            self.assertIn('name="%s" value="%s"' % (name, shown), page)
        self.assertIn(">Hello\nC:\\ftp</textarea>", page)
        # Rows come back numbered from 0, with one empty row to add a path.
        self.assertEqual(re.findall(r'name="path_(\d+)" value="([^"]*)"', page),
                         [("0", HOMES + "/$username"), ("1", "/srv/pub"), ("2", "")])
        # A second save of the page as shown changes nothing.
        before = ini()
        post(Form(page).fields + [("cmd_class_save", "1")])
        self.assertEqual(ini(), before)

    def test_b_domains_and_classes_made_renumbered_deleted(self):
        page = post(changed(form_of("cmd=domain_add&domainid=-1"), name="two.example", address="127.0.0.9",
                            loginfails="3 failures", passwd_check="warn", cmd_domain_save="1"))
        self.assertIn('value="two.example"', page)
        self.assertIn('value="3 failures"', page)
        self.assertEqual(block('vdomain address="127.0.0.9"')[:3], [
            'vdomain address="127.0.0.9" name="two.example" ',
            '\tloginfails "3" ',
            '\tpasswd_check "warn" ',
        ])
        for name in ("first", "second", "third"):
            form = form_of("cmd=class_add&domainid=1&classid=-1")
            post(changed(form, class_name=name, users="u" + name, type_anonymous="true", cmd_class_save="1"))
        names = re.findall(r'class_name="(\w+)"', "\n".join(block('vdomain address="127.0.0.9"')))
        self.assertEqual(names, ["first", "second", "third"])
        # The new class had type real ticked, and anonymous was added.
        self.assertIn('\tclass type="real,anonymous" from="" users="ufirst"', "\n".join(block('vdomain address="127.0.0.9"')))
        page = post([("domainid", "1"), ("classid", "0"), ("cmd_class_delete", "1")])
        self.assertRegex(page, r'classid=0">second</a></td><td>[^<]*</td><td>[^<]*</td><td>usecond<',
                         "the classes after the deleted one move up")
        self.assertEqual(re.findall(r'class_name="([^"]*)"', ini().decode()), ["Real users", "second", "third"])
        # The first domain cannot be deleted; the second can.
        before = ini()
        post([("domainid", "0"), ("classid", ""), ("cmd_domain_delete", "1")])
        self.assertEqual(ini(), before)
        post([("domainid", "1"), ("classid", ""), ("cmd_domain_delete", "1")])
        self.assertNotIn(b"two.example", ini())
        self.assertEqual(ini().count(b"vdomain"), 1)

    def test_c_unknown_ids_and_hostile_forms(self):
        form = self.class_form(0, 0)
        before = ini()
        for ids in (("0", "9"), ("99", "0"), ("-5", "0"), ("0", "")):
            with self.subTest(ids=ids):
                page = post(changed(form, domainid=ids[0], classid=ids[1], cmd_class_save="1"))
                self.assertIn("nothing was written", page)
                self.assertEqual(ini(), before)
        page = post([("domainid", "0"), ("classid", "9"), ("cmd_class_delete", "1")])
        self.assertIn("nothing was deleted", page)
        page = post([("domainid", "7"), ("cmd_domain_delete", "1")])
        self.assertIn("nothing was deleted", page)
        page = post(changed(form_of("cmd=domain&domainid=0"), domainid="12", cmd_domain_save="1"))
        self.assertIn("nothing was written", page)
        self.assertIn("There is no class 9 in domain 0", get("cmd=class&domainid=0&classid=9"))
        self.assertIn("There is no class", get("cmd=class&domainid=0"))
        self.assertEqual(ini(), before)
        # Thousands of fields: the save reads only its own.
        junk = [("junk_%d" % i, "x") for i in range(5000)]
        post(changed(form, cmd_class_save="1") + junk)
        self.assertEqual(ini(), before)
        # A 30 MB body is not taken; the server serves on.
        with socket.create_connection(("127.0.0.1", SERVER.ports["mgr"]), timeout=30) as s:
            auth = base64.b64encode(("admin:" + ADMIN_PASSWORD).encode()).decode()
            s.sendall(("POST /cgi/korvanemgr.cgi HTTP/1.0\r\nAuthorization: Basic %s\r\n"
                       "Content-Length: %d\r\n\r\n" % (auth, 30 * 1024 * 1024)).encode())
            try:
                s.sendall(b"cmd_global_save=1&log_level=" + b"x" * 100000)
                s.recv(1000)
            except OSError:
                pass
        self.assertEqual(ini(), before)
        self.assertIn("Global settings", get("cmd=global"))

    def test_d_next_session_sees_a_save_older_keeps_its_view(self):
        home = SERVER.path("home/" + FTP_USER)
        with open(os.path.join(home, "a.txt"), "w") as f:
            f.write("text\n")
        old = ftp_login()
        try:
            form = self.class_form(0, 0)
            post(changed(form, noretrieve="*.txt", cmd_class_save="1"))
            self.assertIn(b'noretrieve "*.txt"', ini())
            with ftp_login() as new:
                with self.assertRaises(ftplib.error_perm):
                    new.retrbinary("RETR a.txt", lambda b: None)
            got = []
            old.retrbinary("RETR a.txt", got.append)
            self.assertEqual(b"".join(got), b"text\n")
        finally:
            old.close()
        post(changed(self.class_form(0, 0), noretrieve="", cmd_class_save="1"))


class DumpAndManual(unittest.TestCase):
    def test_dump_is_the_configuration(self):
        page = get("cmd=dump")
        self.assertIn("global_settings", page)
        self.assertIn("vdomain address=&#34;&#34; name=&#34;conf&#34;", page)
        self.assertIn("global_settings", post([("cmd_dump", "1")]))

    def test_manual_pages_and_search(self):
        for path, wanted in (("/help/anything.htm", "Every setting"),
                             ("/korvane/manual/class.htm", "Class settings"),
                             ("/korvane/manual/nosuch.htm", "Every setting")):
            with self.subTest(path=path):
                c = http.client.HTTPConnection("127.0.0.1", SERVER.ports["mgr"], timeout=30)
                auth = base64.b64encode(("admin:" + ADMIN_PASSWORD).encode()).decode()
                c.request("GET", path, headers={"Authorization": "Basic " + auth})
                self.assertIn(wanted, c.getresponse().read().decode())
                c.close()
        found = post([("search", "speed"), ("cmd_search_help.x", "3")])
        self.assertEqual(sorted(set(re.findall(r'id="set-([a-z_]+)"', found))), ["limit_speed", "limit_speed_up"])
        self.assertIn("2 settings mention", found)


def main():
    global WEB
    p = argparse.ArgumentParser(add_help=False)
    p.add_argument("--web", required=True)
    args, rest = p.parse_known_args()
    WEB = os.path.abspath(args.web)
    sys.argv = [sys.argv[0]] + rest
    harness.main(lambda binary, omauth: Server(binary, omauth))


if __name__ == "__main__":
    main()
