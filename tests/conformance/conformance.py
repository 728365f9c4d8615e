#!/usr/bin/env python3
"""Real FTP clients against the real server: Python's ftplib, curl and lftp.

One server is started for the whole run on a configuration written into a
temporary directory, on free loopback ports: an anonymous read-only area, a
user "alice" of the bundled authentication module with a writable home, and a
user "slow" whose class holds downloads to 100 KB a second. Every file that
crosses is compared byte for byte with its source.

    conformance.py --binary build/korvane --omauth build/omauth [unittest args]
"""
import ftplib
import io
import os
import random
import shutil
import subprocess
import unittest

import harness
from harness import ImplicitFTP_TLS, digest, insecure_context

SERVER = None

SPARSE_AT = 5_000_000_000  # a sparse file's only data lies past 4 GiB
SPARSE_TAIL = b"past-four-gigabytes\n"
CLASSES = """\tclass type="anonymous" users="" name="anonymous" class_name="anonymous"
\t\tdir alias="/" path="@DIR@/pub" read="true"
\tclass type="real" users="slow" name="slow" class_name="slow"
\t\tlimit_speed "100"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
\tclass type="real" users="*" name="real" class_name="real"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
\t\tdir alias="/pub" path="@DIR@/pub" read="true"
"""


class Server(harness.Server):
    def __init__(self, binary, omauth):
        super().__init__(binary, omauth, {"alice": "Conf-Pass-1", "slow": "Conf-Pass-2"}, CLASSES)
        rnd = random.Random(7)
        self.files = {
            "data.bin": rnd.randbytes(3 * 1024 * 1024 + 17),
            "small.txt": b"first line\nsecond line\nthird\n",
        }
        pub = self.path("pub")
        os.makedirs(os.path.join(pub, "tree", "deeper"))
        for name, data in self.files.items():
            with open(os.path.join(pub, name), "wb") as f:
                f.write(data)
        for rel, data in (("tree/a.txt", b"a\n"), ("tree/deeper/b.bin", bytes(range(256)) * 300)):
            with open(os.path.join(pub, rel), "wb") as f:
                f.write(data)
        with open(os.path.join(pub, "sparse"), "wb") as f:
            f.seek(SPARSE_AT)
            f.write(SPARSE_TAIL)
        os.symlink(os.path.join(pub, "data.bin"), self.path("home/slow/data.bin"))


def ftp(user="alice", password="Conf-Pass-1", cls=ftplib.FTP, port=None, **kw):
    f = cls(**kw) if kw else cls()
    f.connect("127.0.0.1", port or SERVER.ports["ftp"], timeout=20)
    f.login(user, password)
    return f


def get(f, name, rest=None):
    buf = io.BytesIO()
    f.retrbinary("RETR " + name, buf.write, rest=rest)
    return buf.getvalue()


class Ftplib(unittest.TestCase):
    def test_logins(self):
        with ftp("anonymous", "me@example.org") as f:
            self.assertTrue(f.getwelcome().startswith("220"))
            self.assertEqual(get(f, "small.txt"), SERVER.files["small.txt"])
        with ftplib.FTP() as f:
            f.connect("127.0.0.1", SERVER.ports["ftp"], timeout=20)
            with self.assertRaises(ftplib.error_perm):
                f.login("alice", "wrong")

    def test_binary_both_ways_passive_and_active(self):
        data = SERVER.files["data.bin"]
        for passive in (True, False):
            with ftp() as f:
                f.set_pasv(passive)
                self.assertEqual(digest(get(f, "/pub/data.bin")), digest(data))
                name = "up-%s.bin" % ("pasv" if passive else "port")
                self.assertTrue(f.storbinary("STOR " + name, io.BytesIO(data)).startswith("226"))
                with open(SERVER.path("home/alice/" + name), "rb") as h:
                    self.assertEqual(digest(h.read()), digest(data))

    def test_resumed_download_and_upload(self):
        data = SERVER.files["data.bin"]
        with ftp() as f:
            self.assertEqual(get(f, "/pub/data.bin", rest=1_000_001), data[1_000_001:])
            # An interrupted upload leaves a prefix; REST then STOR completes it.
            harness.plant(SERVER.path("home/alice/resume.bin"), data[:777_777])
            f.voidcmd("TYPE I")
            f.storbinary("STOR resume.bin", io.BytesIO(data[777_777:]), rest=777_777)
        with open(SERVER.path("home/alice/resume.bin"), "rb") as h:
            self.assertEqual(digest(h.read()), digest(data))

    def test_ascii_both_ways(self):
        with ftp() as f:
            lines = []
            f.retrlines("RETR /pub/small.txt", lines.append)
            self.assertEqual(lines, ["first line", "second line", "third"])
            f.storlines("STOR text.txt", io.BytesIO(b"one\r\ntwo\r\n"))
        with open(SERVER.path("home/alice/text.txt"), "rb") as h:
            self.assertEqual(h.read(), b"one\ntwo\n")

    def test_listing(self):
        with ftp("anonymous", "me@example.org") as f:
            names = f.nlst()
            self.assertIn("data.bin", names)
            self.assertIn("small.txt", names)
            lines = []
            f.dir(lines.append)
            line = [x for x in lines if x.endswith(" data.bin")]
            self.assertEqual(len(line), 1, lines)
            self.assertIn(" %d " % len(SERVER.files["data.bin"]), line[0])

    def test_sparse_file_past_four_gib(self):
        with ftp("anonymous", "me@example.org") as f:
            self.assertEqual(get(f, "sparse", rest=SPARSE_AT + 5), SPARSE_TAIL[5:])

    def test_explicit_tls_with_protected_data(self):
        data = SERVER.files["data.bin"]
        with ftp(cls=ftplib.FTP_TLS, context=insecure_context()) as f:
            f.prot_p()
            self.assertEqual(digest(get(f, "/pub/data.bin")), digest(data))
            f.storbinary("STOR tls.bin", io.BytesIO(data))
        with open(SERVER.path("home/alice/tls.bin"), "rb") as h:
            self.assertEqual(digest(h.read()), digest(data))

    def test_implicit_tls(self):
        f = ImplicitFTP_TLS(context=insecure_context())
        f.connect("127.0.0.1", SERVER.ports["implicit"])
        f.login("alice", "Conf-Pass-1")
        f.prot_p()
        self.assertEqual(get(f, "/pub/small.txt"), SERVER.files["small.txt"])
        f.quit()

    def test_abort_mid_download(self):
        # 100 KB a second: the 3 MB file is far from done when ABOR goes.
        with ftp("slow", "Conf-Pass-2") as f:
            f.voidcmd("TYPE I")
            conn = f.transfercmd("RETR data.bin")
            first = conn.recv(8192)
            self.assertTrue(first)
            f.sock.sendall(b"ABOR\r\n")
            replies = [f.getline(), f.getline()]
            conn.close()
            self.assertEqual(replies, ["426 ABORT command received.", "226 Abort successful"])
            self.assertEqual(f.voidcmd("NOOP"), "200 NOOP command successful.")

    def test_make_rename_delete_remove(self):
        home = SERVER.path("home/alice")
        with ftp() as f:
            self.assertEqual(f.mkd("fdir"), "fdir")
            f.cwd("fdir")
            self.assertEqual(f.pwd(), "/fdir")
            f.storbinary("STOR one.bin", io.BytesIO(b"12345"))
            self.assertEqual(f.size("one.bin"), 5)
            f.rename("one.bin", "/fdir/two.bin")
            self.assertEqual(sorted(os.listdir(home + "/fdir")), ["two.bin"])
            f.delete("two.bin")
            with self.assertRaises(ftplib.error_perm):
                f.delete("two.bin")
            f.cwd("..")
            f.rmd("fdir")
        self.assertFalse(os.path.exists(home + "/fdir"))


# ---- curl ----------------------------------------------------------------------


def curl(*args, data=None):
    cmd = ["curl", "-sS", "--max-time", "60", "--ftp-method", "nocwd"] + list(args)
    r = subprocess.run(cmd, input=data, capture_output=True)
    if r.returncode != 0:
        raise AssertionError("%s: exit %d %s" % (" ".join(cmd), r.returncode, r.stderr.decode(errors="replace")))
    return r.stdout


def url(path, scheme="ftp", port=None, user="alice:Conf-Pass-1"):
    return "%s://%s@127.0.0.1:%d/%s" % (scheme, user, port or SERVER.ports["ftp"], path)


@unittest.skipUnless(shutil.which("curl"), "curl is not installed")
class Curl(unittest.TestCase):
    def test_download_passive_and_active(self):
        data = SERVER.files["data.bin"]
        self.assertEqual(digest(curl(url("pub/data.bin"))), digest(data))
        self.assertEqual(digest(curl("-P", "127.0.0.1", url("pub/data.bin"))), digest(data))

    def test_upload_and_resumed_upload(self):
        data = SERVER.files["data.bin"]
        src = SERVER.path("curl-src.bin")
        with open(src, "wb") as h:
            h.write(data)
        curl("-T", src, url("curl.bin"))
        with open(SERVER.path("home/alice/curl.bin"), "rb") as h:
            self.assertEqual(digest(h.read()), digest(data))
        # Resume: the server holds a prefix; curl sends the rest with APPE.
        harness.plant(SERVER.path("home/alice/curl-r.bin"), data[:500_000])
        curl("-C", "500000", "-T", src, url("curl-r.bin"))
        with open(SERVER.path("home/alice/curl-r.bin"), "rb") as h:
            self.assertEqual(digest(h.read()), digest(data))

    def test_resumed_and_ranged_download(self):
        data = SERVER.files["data.bin"]
        out = SERVER.path("curl-part.bin")
        with open(out, "wb") as h:
            h.write(data[:123_456])
        curl("-C", "-", "-o", out, url("pub/data.bin"))
        with open(out, "rb") as h:
            self.assertEqual(digest(h.read()), digest(data))
        self.assertEqual(curl("-r", "%d-" % (SPARSE_AT + 2), url("pub/sparse")), SPARSE_TAIL[2:])

    def test_ascii_and_listing(self):
        # In ASCII mode curl turns the CR LF line ends it receives back into LF.
        self.assertEqual(curl("-B", url("pub/small.txt")), SERVER.files["small.txt"])
        # Listings come in ASCII, whose line ends curl also makes local.
        listing = curl(url("", user="anonymous:me%40example.org")).splitlines()
        self.assertEqual([x for x in listing if x.endswith(b" data.bin")][0].split()[4], b"3145745")
        names = curl("-l", url("", user="anonymous:me%40example.org")).splitlines()
        self.assertIn(b"small.txt", names)

    def test_make_rename_delete_remove(self):
        home = SERVER.path("home/alice")
        # Directories made on the way by MKD and CWD, then commands around a listing.
        curl("--ftp-method", "multicwd", "--ftp-create-dirs", "-T", "-", url("cdir/sub/f.bin"), data=b"abc")
        with open(home + "/cdir/sub/f.bin", "rb") as h:
            self.assertEqual(h.read(), b"abc")
        curl("-Q", "RNFR cdir/sub/f.bin", "-Q", "RNTO cdir/g.bin", "-l", url("cdir/"))
        self.assertEqual(sorted(os.listdir(home + "/cdir")), ["g.bin", "sub"])
        curl("-Q", "DELE cdir/g.bin", "-Q", "RMD cdir/sub", "-Q", "RMD cdir", "-l", url(""))
        self.assertFalse(os.path.exists(home + "/cdir"))

    def test_explicit_and_implicit_tls(self):
        data = SERVER.files["data.bin"]
        self.assertEqual(digest(curl("-k", "--ssl-reqd", url("pub/data.bin"))), digest(data))
        got = curl("-k", url("pub/data.bin", scheme="ftps", port=SERVER.ports["implicit"]))
        self.assertEqual(digest(got), digest(data))


# ---- lftp ----------------------------------------------------------------------


LFTP_SETTINGS = ("set cmd:fail-exit yes; set net:max-retries 1; set net:timeout 20; "
                 "set ssl:verify-certificate no; set ftp:ssl-allow no; ")


def lftp(script, user="alice,Conf-Pass-1"):
    cmd = ["lftp", "-u", user, "-p", str(SERVER.ports["ftp"]), "-e", LFTP_SETTINGS + script + "; bye", "127.0.0.1"]
    r = subprocess.run(cmd, capture_output=True, timeout=90, stdin=subprocess.DEVNULL)
    if r.returncode != 0:
        raise AssertionError("%s: exit %d %s" % (" ".join(cmd), r.returncode, r.stderr.decode(errors="replace")))
    return r.stdout


def tree(root):
    out = {}
    for base, _, files in os.walk(root):
        for name in files:
            p = os.path.join(base, name)
            with open(p, "rb") as h:
                out[os.path.relpath(p, root)] = digest(h.read())
    return out


@unittest.skipUnless(shutil.which("lftp"), "lftp is not installed")
class Lftp(unittest.TestCase):
    def test_get_and_put(self):
        local = SERVER.path("lftp-data.bin")
        lftp("get /pub/data.bin -o %s; put %s -o /lftp-up.bin" % (local, local))
        with open(local, "rb") as h:
            self.assertEqual(digest(h.read()), digest(SERVER.files["data.bin"]))
        with open(SERVER.path("home/alice/lftp-up.bin"), "rb") as h:
            self.assertEqual(digest(h.read()), digest(SERVER.files["data.bin"]))

    def test_make_rename_delete_remove(self):
        home = SERVER.path("home/alice")
        local = SERVER.path("lftp-small.txt")
        with open(local, "wb") as h:
            h.write(SERVER.files["small.txt"])
        lftp("mkdir -p ldir/a; cd ldir/a; put %s -o f.txt; mv f.txt ../g.txt" % local)
        self.assertEqual(sorted(os.listdir(home + "/ldir")), ["a", "g.txt"])
        self.assertEqual(os.listdir(home + "/ldir/a"), [])
        lftp("cd ldir; rm g.txt; rmdir a; cd ..; rmdir ldir")
        self.assertFalse(os.path.exists(home + "/ldir"))

    def test_mirror_down_and_up(self):
        down = SERVER.path("mirror-down")
        lftp("mirror /pub/tree %s" % down)
        self.assertEqual(tree(down), tree(SERVER.path("pub/tree")))
        lftp("mirror -R %s /tree-up" % down)
        self.assertEqual(tree(SERVER.path("home/alice/tree-up")), tree(SERVER.path("pub/tree")))


if __name__ == "__main__":
    harness.main(Server)
