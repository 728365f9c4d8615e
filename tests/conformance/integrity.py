#!/usr/bin/env python3
"""No byte lost: uploads through real clients, every file checked twice.

Each stored file is compared with its source by SHA-256, and the transfer
log's line for it must say complete with a count equal to the size on disk.
The sizes sit on and around the 16 KiB edge of a TLS record (0, 1, 16383,
16384, 16385), each twenty times so that a race at the end of a transfer
shows, then 200 000 bytes, 3 MB and, once per client, 100 MB.

One server per run; each case uploads many files in one session.

    integrity.py --binary build/korvane --omauth build/omauth CLIENT
    CLIENT: Curl, Lftp, Ftplib or RawClient
"""
import ftplib
import io
import os
import random
import re
import shutil
import socket
import ssl
import struct
import subprocess
import unittest

import harness
from harness import ImplicitFTP_TLS, digest, insecure_context

SERVER = None

SMALL = (0, 1, 16383, 16384, 16385)
REPEAT = 20
LARGE = (200_000, 3_000_000)
BIG = 100 * 1024 * 1024
PASSWORDS = {"alice": "Integ-Pass-1", "reader": "Integ-Pass-2"}

# alice's uploads of binary streams in clear go through the kernel pipe; reader's
# upload limit (far above what loopback reaches) sends every byte through reads.
CLASSES = """\tclass type="real" users="*" name="real" class_name="real"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
\tclass type="real" users="reader" name="reader" class_name="reader"
\t\tlimit_speed_up "1000MB"
\t\tdir alias="/" path="@DIR@/home/$username" read="true" write="true"
"""


class Server(harness.Server):
    def __init__(self, binary, omauth):
        super().__init__(binary, omauth, PASSWORDS, CLASSES, prefix="korv-integrity-")
        self.sources = {}

    def source_set(self, tag, sizes=None, repeat=REPEAT):
        """Files named after their size and copy, with content of their own, kept
        under src/<tag>/; {name: bytes}."""
        rnd = random.Random(tag)
        files = {}
        for size in sizes or SMALL:
            for i in range(repeat):
                files["s%d-%02d.bin" % (size, i)] = rnd.randbytes(size)
        if sizes is None:
            for size in LARGE:
                files["l%d.bin" % size] = rnd.randbytes(size)
        src = self.path("src/" + tag)
        os.makedirs(src, exist_ok=True)
        for name, data in files.items():
            with open(os.path.join(src, name), "wb") as f:
                f.write(data)
        return files

    def big_source(self):
        os.makedirs(self.path("src"), exist_ok=True)
        path = self.path("src/big.bin")
        if not os.path.exists(path):
            with open(path, "wb") as f:
                rnd = random.Random(100)
                for _ in range(BIG // (1 << 20)):
                    f.write(rnd.randbytes(1 << 20))
        return path


class Checked(unittest.TestCase):
    def assert_stored(self, user, folder, expected):
        """Every file of `expected` ({name: bytes}) stored whole under the user's
        folder and logged complete with its size."""
        base = os.path.join(SERVER.dir, "home", user, folder)
        paths = {name: os.path.join(base, name) for name in expected}
        entries = SERVER.wait_xfer({paths[n]: (len(d), True) for n, d in expected.items()})
        wrong = []
        for name, data in sorted(expected.items()):
            try:
                with open(paths[name], "rb") as f:
                    got = f.read()
            except OSError as e:
                wrong.append("%s: %s" % (name, e.strerror))
                continue
            if digest(got) != digest(data):
                wrong.append("%s: %d bytes stored of %d" % (name, len(got), len(data)))
            entry = entries.get(paths[name])
            if entry != (len(got), True):
                wrong.append("%s: transfer log says %s, file has %d bytes" % (name, entry, len(got)))
        self.assertEqual(wrong, [], "%d of %d files wrong in %s" % (len(wrong), len(expected), base))

    def assert_big(self, user, rel):
        path = os.path.join(SERVER.dir, "home", user, rel)
        entries = SERVER.wait_xfer({path: (BIG, True)})
        self.assertEqual(os.path.getsize(path), BIG)
        with open(SERVER.big_source(), "rb") as a, open(path, "rb") as b:
            self.assertEqual(digest(a.read()), digest(b.read()))
        self.assertEqual(entries.get(path), (BIG, True))


# ---- curl ----------------------------------------------------------------------


def curl_version():
    m = re.match(r"curl (\d+)\.(\d+)\.(\d+)", subprocess.run(["curl", "--version"], capture_output=True,
                                                              text=True).stdout)
    return tuple(int(x) for x in m.groups()) if m else (0, 0, 0)


def curl(*args):
    cmd = ["curl", "-sS", "--max-time", "300", "-k"] + list(args)
    r = subprocess.run(cmd, capture_output=True, stdin=subprocess.DEVNULL)
    if r.returncode != 0:
        raise AssertionError("%s: exit %d %s" % (" ".join(cmd[:8]), r.returncode, r.stderr.decode(errors="replace")))
    return r.stdout


def curl_url(folder, user="alice", implicit=False):
    scheme, port = ("ftps", SERVER.ports["implicit"]) if implicit else ("ftp", SERVER.ports["ftp"])
    return "%s://%s:%s@127.0.0.1:%d/%s/" % (scheme, user, PASSWORDS[user], port, folder)


def curl_put_set(tag, url, *flags):
    """Uploads a whole set in one curl run (one session, one data connection a file)."""
    files = SERVER.source_set(tag)
    src = SERVER.path("src/" + tag)
    curl("--ftp-create-dirs", *flags, "-T", "{%s}" % ",".join(os.path.join(src, n) for n in sorted(files)), url)
    return files


@unittest.skipUnless(shutil.which("curl"), "curl is not installed")
class Curl(Checked):
    def test_passive_plain_explicit_and_implicit_tls(self):
        for tag, flags, implicit in (("curl-plain", (), False), ("curl-tls", ("--ssl-reqd",), False),
                                     ("curl-implicit", (), True)):
            with self.subTest(tag):
                files = curl_put_set(tag, curl_url(tag, implicit=implicit), *flags)
                self.assert_stored("alice", tag, files)

    def test_active_plain_and_read_path(self):
        files = curl_put_set("curl-active", curl_url("curl-active"), "-P", "127.0.0.1")
        self.assert_stored("alice", "curl-active", files)
        files = curl_put_set("curl-read", curl_url("curl-read", user="reader"))
        self.assert_stored("reader", "curl-read", files)

    def test_active_tls(self):
        v = curl_version()
        if (7, 87, 0) <= v < (8, 0, 0):
            # These versions accept the server's data connection and never start
            # TLS on it (the client's bug, fixed in later releases); the server's
            # side of active TLS is pinned by RawClient.test_active_tls_order.
            self.skipTest("curl %d.%d.%d does not start TLS on an active data connection" % v)
        files = curl_put_set("curl-active-tls", curl_url("curl-active-tls"), "--ssl-reqd", "-P", "127.0.0.1")
        self.assert_stored("alice", "curl-active-tls", files)

    def test_append_resume_and_ascii_over_tls(self):
        files = SERVER.source_set("curl-more", sizes=(16385, 200_000), repeat=1)
        src = SERVER.path("src/curl-more")
        home = SERVER.path("home/alice/curl-more")
        os.makedirs(home, exist_ok=True)
        expected = {}
        for name, data in files.items():
            # APPE onto a prefix already there, and a resume (curl sends APPE after SIZE).
            cut = len(data) // 3
            harness.plant(os.path.join(home, "app-" + name), data[:cut])
            with open(os.path.join(src, "tail-" + name), "wb") as f:
                f.write(data[cut:])
            curl("--ssl-reqd", "--append", "-T", os.path.join(src, "tail-" + name),
                 curl_url("curl-more") + "app-" + name)
            expected["app-" + name] = data
            harness.plant(os.path.join(home, "res-" + name), data[:cut])
            curl("--ssl-reqd", "-C", "-", "-T", os.path.join(src, name), curl_url("curl-more") + "res-" + name)
            expected["res-" + name] = data
        # In ASCII curl sends local line ends as CR LF; the server stores LF.
        text = b"".join(b"line %d of the text\n" % i for i in range(20000))
        with open(os.path.join(src, "text.txt"), "wb") as f:
            f.write(text)
        curl("--ssl-reqd", "-B", "-T", os.path.join(src, "text.txt"), curl_url("curl-more") + "text.txt")
        expected["text.txt"] = text
        self.assert_stored("alice", "curl-more", expected)

    def test_hundred_megabytes_over_tls(self):
        curl("--ssl-reqd", "-T", SERVER.big_source(), curl_url("curl-big"), "--ftp-create-dirs")
        self.assert_big("alice", "curl-big/big.bin")


# ---- lftp ----------------------------------------------------------------------


LFTP_SETTINGS = ("set cmd:fail-exit yes; set net:max-retries 1; set net:timeout 30; "
                 "set ssl:verify-certificate no; set ftp:ssl-force true; set ftp:ssl-protect-data true; ")


def lftp(script, user="alice"):
    cmd = ["lftp", "-u", "%s,%s" % (user, PASSWORDS[user]), "-p", str(SERVER.ports["ftp"]),
           "-e", LFTP_SETTINGS + script + "; bye", "127.0.0.1"]
    r = subprocess.run(cmd, capture_output=True, timeout=300, stdin=subprocess.DEVNULL)
    if r.returncode != 0:
        raise AssertionError("lftp %s: exit %d %s" % (script[:60], r.returncode, r.stderr.decode(errors="replace")))
    return r.stdout


@unittest.skipUnless(shutil.which("lftp"), "lftp is not installed")
class Lftp(Checked):
    def test_put_passive_and_active_over_tls(self):
        for tag, mode in (("lftp-pasv", "on"), ("lftp-port", "off")):
            with self.subTest(tag):
                files = SERVER.source_set(tag)
                lftp("set ftp:passive-mode %s; mkdir %s; mput -O %s %s/*" % (mode, tag, tag, SERVER.path("src/" + tag)))
                self.assert_stored("alice", tag, files)

    def test_mirror_reverse_over_tls(self):
        files = SERVER.source_set("lftp-mirror")
        lftp("mirror -R %s /lftp-mirror" % SERVER.path("src/lftp-mirror"))
        self.assert_stored("alice", "lftp-mirror", files)

    def test_resume_and_ascii_over_tls(self):
        files = SERVER.source_set("lftp-more", sizes=(16385, 3_000_000), repeat=1)
        home = SERVER.path("home/alice/lftp-more")
        os.makedirs(home, exist_ok=True)
        for name, data in files.items():
            harness.plant(os.path.join(home, name), data[: len(data) // 2])
        # put -c finds the size on the server and sends the rest after REST.
        lftp("cd lftp-more; " + "; ".join("put -c %s" % SERVER.path("src/lftp-more/" + n) for n in files))
        text = b"".join(b"ascii line %d\n" % i for i in range(30000))
        src = SERVER.path("src/lftp-more/text.txt")
        with open(src, "wb") as f:
            f.write(text)
        lftp("cd lftp-more; put -a %s" % src)
        self.assert_stored("alice", "lftp-more", dict(files, **{"text.txt": text}))

    def test_hundred_megabytes_over_tls(self):
        lftp("put %s -o lftp-big.bin" % SERVER.big_source())
        self.assert_big("alice", "lftp-big.bin")


# ---- ftplib --------------------------------------------------------------------


def session(user="alice", tls=None, passive=True):
    """A logged-in session: tls None (clear), "explicit" or "implicit"; data protected with TLS."""
    if tls == "implicit":
        f = ImplicitFTP_TLS(context=insecure_context())
        f.connect("127.0.0.1", SERVER.ports["implicit"], timeout=30)
    elif tls == "explicit":
        f = ftplib.FTP_TLS(context=insecure_context())
        f.connect("127.0.0.1", SERVER.ports["ftp"], timeout=30)
    else:
        f = ftplib.FTP()
        f.connect("127.0.0.1", SERVER.ports["ftp"], timeout=30)
    f.login(user, PASSWORDS[user])
    if tls:
        f.prot_p()
    f.set_pasv(passive)
    return f


def stor_blocks(f, cmd, data, block=7000):
    """STOR in block mode: headers of three bytes, the last block marked end of file."""
    f.voidcmd("TYPE I")
    f.voidcmd("MODE B")
    conn = f.transfercmd(cmd)
    chunks = [data[i:i + block] for i in range(0, len(data), block)] or [b""]
    for i, chunk in enumerate(chunks):
        conn.sendall(struct.pack(">BH", 0x40 if i == len(chunks) - 1 else 0, len(chunk)) + chunk)
    if isinstance(conn, ssl.SSLSocket):
        conn = conn.unwrap()
    conn.close()
    reply = f.voidresp()
    f.voidcmd("MODE S")
    return reply


class Ftplib(Checked):
    def test_stream_passive_and_active_plain_and_tls(self):
        for tls in (None, "explicit", "implicit"):
            for passive in (True, False):
                tag = "ftplib-%s-%s" % (tls or "plain", "pasv" if passive else "port")
                with self.subTest(tag):
                    files = SERVER.source_set(tag)
                    with session(tls=tls, passive=passive) as f:
                        f.mkd(tag)
                        for name, data in files.items():
                            f.storbinary("STOR %s/%s" % (tag, name), io.BytesIO(data))
                    self.assert_stored("alice", tag, files)

    def test_block_mode_plain_and_tls(self):
        for tls in (None, "explicit"):
            tag = "ftplib-block-%s" % (tls or "plain")
            with self.subTest(tag):
                files = SERVER.source_set(tag)
                with session(tls=tls) as f:
                    f.mkd(tag)
                    for name, data in files.items():
                        self.assertTrue(stor_blocks(f, "STOR %s/%s" % (tag, name), data).startswith("226"))
                self.assert_stored("alice", tag, files)

    def test_read_path(self):
        files = SERVER.source_set("ftplib-read")
        with session(user="reader") as f:
            f.mkd("ftplib-read")
            for name, data in files.items():
                f.storbinary("STOR ftplib-read/" + name, io.BytesIO(data))
        self.assert_stored("reader", "ftplib-read", files)

    def test_appe_stou_rest_and_ascii(self):
        for tls in (None, "explicit"):
            tag = "ftplib-cmds-%s" % (tls or "plain")
            with self.subTest(tag):
                files = SERVER.source_set(tag, sizes=(0, 1, 16384, 200_000), repeat=2)
                expected = {}
                with session(tls=tls) as f:
                    f.mkd(tag)
                    f.cwd(tag)
                    for name, data in files.items():
                        cut = len(data) // 2
                        f.storbinary("STOR rest-" + name, io.BytesIO(data[:cut]))
                        f.storbinary("STOR rest-" + name, io.BytesIO(data[cut:]), rest=cut)
                        expected["rest-" + name] = data
                        # STOU of an existing name stores under a new one.
                        f.storbinary("STOR u-" + name, io.BytesIO(b"first"))
                        reply = f.storbinary("STOU u-" + name, io.BytesIO(data))
                        unique = re.search(r"unique file name:(.*)\)", reply).group(1)
                        expected[unique] = data
                        expected["u-" + name] = b"first"
                    text = b"".join(b"row %d\r\n" % i for i in range(5000))
                    f.storlines("STOR text.txt", io.BytesIO(text.replace(b"\r\n", b"\n")))
                    expected["text.txt"] = text.replace(b"\r\n", b"\n")
                    # APPE last: once sent, every later STOR of the session appends.
                    for name, data in files.items():
                        cut = len(data) // 3
                        f.storbinary("STOR app-" + name, io.BytesIO(data[:cut]))
                        f.storbinary("APPE app-" + name, io.BytesIO(data[cut:]))
                        expected["app-" + name] = data
                self.assert_stored("alice", tag, expected)

    def test_hundred_megabytes_plain(self):
        with session() as f, open(SERVER.big_source(), "rb") as src:
            f.storbinary("STOR ftplib-big.bin", src, blocksize=1 << 20)
        self.assert_big("alice", "ftplib-big.bin")


# ---- a raw TLS client ------------------------------------------------------------


def raw_stor(f, name, data, end):
    """STOR with the data connection ended by `end`: "notify" (close_notify, then
    close), "close" (close right after the last write), "reset" (an RST after part
    of the data) or "corrupt" (a forged record after part of the data). The reply."""
    f.voidcmd("TYPE I")
    conn = f.transfercmd("STOR " + name)
    if end in ("reset", "corrupt"):
        conn.sendall(data[: len(data) // 2])
        if end == "corrupt":
            os.write(conn.fileno(), b"\x17\x03\x03\x00\x40" + os.urandom(64))
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        conn.close()
    else:
        conn.sendall(data)
        if end == "notify":
            conn = conn.unwrap()
        conn.close()  # an SSLSocket's close sends no close_notify
    try:
        return f.voidresp()
    except ftplib.Error as e:
        return str(e)


class RawClient(Checked):
    def test_tls_upload_ends_with_and_without_close_notify(self):
        for tls in ("explicit", "implicit"):
            for end in ("close", "notify"):
                tag = "raw-%s-%s" % (tls, end)
                with self.subTest(tag):
                    files = SERVER.source_set(tag)
                    with session(tls=tls) as f:
                        f.mkd(tag)
                        for name, data in files.items():
                            self.assertTrue(raw_stor(f, "%s/%s" % (tag, name), data, end).startswith("226"))
                    self.assert_stored("alice", tag, files)

    def test_failed_data_connection_is_a_failed_transfer(self):
        data = random.Random(5).randbytes(3_000_000)
        base = SERVER.path("home/alice")
        for tls, end in ((None, "reset"), ("explicit", "reset"), ("explicit", "corrupt")):
            name = "broken-%s-%s.bin" % (tls or "plain", end)
            with self.subTest(name), session(tls=tls) as f:
                reply = raw_stor(f, name, data, end)
                self.assertTrue(reply.startswith("426 Transfer failed. %s " % name), reply)
                # The session goes on, and the partial file stays, logged incomplete.
                self.assertEqual(f.voidcmd("NOOP"), "200 NOOP command successful.")
                size = os.path.getsize(os.path.join(base, name))
                self.assertLess(size, len(data))
                path = os.path.join(base, name)
                self.assertEqual(SERVER.wait_xfer({path: (size, False)}).get(path), (size, False))

    def test_active_tls_order(self):
        # The server connects, says 150, and only then waits for the TLS
        # handshake, in which it is the server: a client that reads the 150
        # before it starts TLS on the data connection must not hang.
        data = random.Random(6).randbytes(200_000)
        with session(tls="explicit") as f, socket.socket() as lsn:
            lsn.bind(("127.0.0.1", 0))
            lsn.listen(1)
            lsn.settimeout(30)
            port = lsn.getsockname()[1]
            f.voidcmd("TYPE I")
            f.voidcmd("PORT 127,0,0,1,%d,%d" % (port >> 8, port & 255))
            f.putcmd("STOR active-order.bin")
            conn, _ = lsn.accept()
            self.assertTrue(f.getline().startswith("150 "))
            conn = insecure_context().wrap_socket(conn, server_hostname="127.0.0.1")
            conn.sendall(data)
            conn.close()
            self.assertTrue(f.voidresp().startswith("226 "))
        self.assert_stored("alice", "", {"active-order.bin": data})


if __name__ == "__main__":
    harness.main(Server)
