"""Installation as an administrator does it, into a temporary root.

  tree  `make install` (cmake --install of the build, DESTDIR set): what goes
        where, a second install keeps an edited /etc/korvane.ini, the
        installed binary on that tree's configuration (ports changed, the
        anonymous area uncommented) serves a login and a download, and the
        uninstall removes the programs and keeps the configuration.
  unit  the installed systemd unit passes `systemd-analyze verify`.
  deb   `make deb`: lintian without errors (inside scripts/mkdeb), and the
        package holds what `make install` installs, at the package's paths.
Exit status 77 is a skip, with the reason printed.
"""
import ftplib
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "conformance"))
import harness  # noqa: E402

SKIP = 77


def install(build, root, prefix="/usr/local"):
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], env=dict(os.environ, DESTDIR=root),
                   check=True, stdout=subprocess.DEVNULL)


def files_under(root):
    out = set()
    for d, _, names in os.walk(root):
        for n in names:
            out.add(os.path.relpath(os.path.join(d, n), root))
    return out


def check(cond, what):
    if not cond:
        raise AssertionError(what)


def tree(src, build, root):
    install(build, root)
    sbin = os.path.join(root, "usr/local/sbin")
    for prog in ("korvane", "omauth"):
        check(os.access(os.path.join(sbin, prog), os.X_OK), prog + " not installed")
    for rel in ("usr/local/share/korvane/web/index.htm", "usr/local/share/korvane/web/korvane.css",
                "usr/local/share/man/man8/korvane.8", "usr/local/lib/systemd/system/korvane.service",
                "etc/korvane.ini"):
        check(os.path.isfile(os.path.join(root, rel)), rel + " missing")
    check(os.readlink(os.path.join(root, "var/lib/korvane/web")) == "/usr/local/share/korvane/web", "web link")
    unit = open(os.path.join(root, "usr/local/lib/systemd/system/korvane.service")).read()
    check("ExecStart=/usr/local/sbin/korvane -test -config /etc/korvane.ini" in unit, unit)
    etc = os.path.join(root, "etc/korvane.ini")
    shipped = open(os.path.join(src, "config/korvane.ini")).read()
    check(open(etc).read() == shipped, "first configuration differs from config/korvane.ini")

    # An administrator's edit survives a second install.
    with open(etc, "a") as f:
        f.write("# edited by the administrator\n")
    install(build, root)
    check(open(etc).read().endswith("# edited by the administrator\n"), "install replaced /etc/korvane.ini")

    # The installed program on the installed configuration, moved into the root.
    home = os.path.join(root, "var/lib/korvane")
    pub = os.path.join(root, "srv/ftp")
    os.makedirs(pub)
    with open(os.path.join(pub, "readme.txt"), "wb") as f:
        f.write(b"installed and serving\n")
    ini = open(etc).read().replace('home "/var/lib/korvane"', 'home "%s"' % home)
    ini = ini.replace('\t#class type="anonymous"', '\tclass type="anonymous"')
    ini = ini.replace('\t#\tdir alias="/" path="/srv/ftp"', '\t\tdir alias="/" path="%s"' % pub)
    ftp, implicit = harness.free_ftp_ports(2)
    ports = {"global_port": ftp, "global_implicit_port": implicit, "global_mgr_port": harness.free_port(),
             "global_mgr_ssl_port": harness.free_port()}
    lines = []
    for line in ini.splitlines():
        word = line.strip().split(" ", 1)[0]
        lines.append('\t%s "%d"' % (word, ports[word]) if word in ports else line)
    with open(etc, "w") as f:
        f.write("\n".join(lines) + "\n")
    errors = open(os.path.join(root, "server.err"), "w+")
    proc = subprocess.Popen([os.path.join(sbin, "korvane"), "-test", "-config", etc], cwd=root,
                            stdout=errors, stderr=errors)
    try:
        deadline = time.monotonic() + 30
        while True:
            check(proc.poll() is None, "installed server ended: " + open(errors.name).read()[-3000:])
            try:
                with socket.create_connection(("127.0.0.1", ftp), timeout=2) as s:
                    if s.recv(100).startswith(b"220"):
                        break
            except OSError:
                pass
            check(time.monotonic() < deadline, "installed server did not answer")
            time.sleep(0.2)
        f = ftplib.FTP()
        f.connect("127.0.0.1", ftp, timeout=10)
        f.login("anonymous", "admin@example.org")
        got = []
        f.retrbinary("RETR readme.txt", got.append)
        f.quit()
        check(b"".join(got) == b"installed and serving\n", "download differs")
    finally:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(30)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()

    # Uninstall: the programs go, the configuration and the home stay.
    subprocess.run([os.path.join(src, "scripts/uninstall"), build, "/usr/local"], env=dict(os.environ, DESTDIR=root),
                   check=True, stdout=subprocess.DEVNULL)
    left = files_under(os.path.join(root, "usr"))
    check(not left, "left after uninstall: %s" % sorted(left))
    check(os.path.isfile(etc), "uninstall removed the configuration")
    check(os.path.isdir(home), "uninstall removed the home")


def unit(build, root):
    analyze = shutil.which("systemd-analyze")
    if not analyze:
        print("SKIP: systemd-analyze is not installed (package systemd)")
        return SKIP
    install(build, root)
    text = open(os.path.join(root, "usr/local/lib/systemd/system/korvane.service")).read()
    # The unit as installed, naming the program of the temporary root.
    text = text.replace("/usr/local/sbin/korvane", os.path.join(root, "usr/local/sbin/korvane"))
    path = os.path.join(root, "korvane.service")
    with open(path, "w") as f:
        f.write(text)
    r = subprocess.run([analyze, "verify", "--man=no", path], capture_output=True, text=True)
    out = (r.stdout + r.stderr).strip()
    check(r.returncode == 0 and not out, "systemd-analyze verify: %d\n%s" % (r.returncode, out))
    for want in ("Type=notify", "WatchdogSec=", "Restart=on-failure", "ProtectSystem=", "PrivateTmp=",
                 "NoNewPrivileges="):
        check(want in text, want + " missing from the unit")


def deb(src, build, root):
    for tool in ("dpkg-deb", "lintian"):
        if not shutil.which(tool):
            print("SKIP: %s is not installed" % tool)
            return SKIP
    out = os.path.join(root, "deb")
    r = subprocess.run([os.path.join(src, "scripts/mkdeb"), build, out], capture_output=True, text=True)
    check(r.returncode == 0, "mkdeb (or lintian) failed:\n" + r.stdout + r.stderr)
    package = r.stdout.strip().splitlines()[-1]
    listing = subprocess.run(["dpkg-deb", "-c", package], capture_output=True, text=True, check=True).stdout
    in_deb = {line.split()[5].lstrip(".").lstrip("/") for line in listing.splitlines() if not line.startswith("d")}
    staged = os.path.join(root, "staged")
    install(build, staged, prefix="/usr")
    for rel in sorted(files_under(staged)):
        if rel.startswith("var/"):
            continue  # the home is made by the post-install script
        want = rel.replace("usr/lib/systemd/", "lib/systemd/")
        if "/man/" in want:
            want += ".gz"
        check(want in in_deb, "%s is installed but not in the package" % want)
    info = subprocess.run(["dpkg-deb", "-f", package, "Package", "Depends"], capture_output=True, text=True,
                          check=True).stdout
    check("Package: korvane" in info and "libssl3" in info, info)
    conffiles = subprocess.run(["dpkg-deb", "--ctrl-tarfile", package], capture_output=True, check=True).stdout
    check(b"conffiles" in conffiles, "no conffiles")
    postinst = subprocess.run(["dpkg-deb", "-I", package, "postinst"], capture_output=True, text=True,
                              check=True).stdout
    check("-password" in postinst and "admin.dat" in postinst, postinst)
    check("korvane -password\"" not in postinst.replace("with: korvane -password\"", ""),
          "the post-install must not set a password by itself")


def main():
    src, build, what = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    root = tempfile.mkdtemp(prefix="korv-install-")
    os.chmod(root, 0o755)  # anonymous sessions act as an unprivileged account
    try:
        if what == "tree":
            status = tree(src, build, root)
        elif what == "unit":
            status = unit(build, root)
        else:
            status = deb(src, build, root)
    finally:
        shutil.rmtree(root, ignore_errors=True)
    print("%s: %s" % (what, "skipped" if status == SKIP else "ok"))
    return status or 0


if __name__ == "__main__":
    sys.exit(main())
