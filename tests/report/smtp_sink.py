#!/usr/bin/env python3
"""A real SMTP server on loopback for the mail tests: each accepted message is
written to DIR/<n>.eml as the envelope (MAIL, RCPT, whether TLS was on), a blank
line, and the message as received (dot-unstuffed by the server).

Usage: smtp_sink.py DIR [--tls CERT KEY] [--refuse PREFIX]
Prints "PORT PID" once it listens; runs until killed."""
import os
import signal
import socket
import ssl
import sys
import time

from aiosmtpd.controller import Controller


class Sink:
    def __init__(self, out, refuse):
        self.out = out
        self.refuse = refuse
        self.n = 0

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        if self.refuse and address.startswith(self.refuse):
            return "550 5.1.1 mailbox unavailable"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        self.n += 1
        tls = "yes" if session.ssl else "no"
        head = "MAIL %s\nRCPT %s\nTLS %s\nHELO %s\n\n" % (envelope.mail_from, ",".join(envelope.rcpt_tos), tls,
                                                          session.host_name)
        body = envelope.original_content or b""
        tmp = os.path.join(self.out, "%d.tmp" % self.n)
        with open(tmp, "wb") as f:
            f.write(head.encode() + body)
        os.rename(tmp, os.path.join(self.out, "%d.eml" % self.n))
        return "250 Message accepted for delivery"


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def main():
    args = sys.argv[1:]
    out = args.pop(0)
    tls = None
    refuse = None
    while args:
        a = args.pop(0)
        if a == "--tls":
            ctx = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            ctx.load_cert_chain(args.pop(0), args.pop(0))
            tls = ctx
        elif a == "--refuse":
            refuse = args.pop(0)
    kwargs = {}
    if tls is not None:
        kwargs = {"tls_context": tls, "require_starttls": True}
    for _ in range(20):
        port = free_port()
        c = Controller(Sink(out, refuse), hostname="127.0.0.1", port=port, **kwargs)
        try:
            c.start()
            break
        except Exception:  # the port was taken meanwhile: another one
            time.sleep(0.05)
    else:
        sys.exit("no port")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    print("%d %d" % (port, os.getpid()), flush=True)
    try:
        while True:
            time.sleep(3600)
    finally:
        c.stop()


if __name__ == "__main__":
    main()
