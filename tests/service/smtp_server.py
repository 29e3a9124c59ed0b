"""The SMTP server of the delivery tests: aiosmtpd with replies scripted per run.

Every accepted message becomes a file msg-N in --dir: "from: ADDR", one "rcpt: ADDR" line per
accepted recipient, "auth: USER" when the client logged in, a blank line, then the message
as received. --dir/ready appears once the port listens. Run with Debian's /usr/bin/python3.
"""
import argparse
import os
import socket
import ssl
import threading

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult

parser = argparse.ArgumentParser()
parser.add_argument("--port", type=int, required=True)
parser.add_argument("--dir", required=True)
parser.add_argument("--reject", default="", help="RCPT of this address gets a 550")
parser.add_argument("--tempfail", action="store_true", help="every RCPT gets a 451")
parser.add_argument("--defer", default="", help="the first RCPT of this address gets a 451")
parser.add_argument("--silent", action="store_true", help="accept TCP, never greet")
parser.add_argument("--cert", help="offer STARTTLS with this certificate and require it")
parser.add_argument("--key")
parser.add_argument("--login", help="USER:PASSWORD that AUTH must give")
args = parser.parse_args()


class Handler:
    count = 0
    deferred = False

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        if args.tempfail:
            return "451 4.3.0 mailbox busy, try again later"
        if address == args.reject:
            return "550 5.1.1 unknown mailbox " + address
        if address == args.defer and not Handler.deferred:
            Handler.deferred = True
            return "451 4.2.1 mailbox full, try again later " + address
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        Handler.count += 1
        head = "from: %s\n" % envelope.mail_from
        head += "".join("rcpt: %s\n" % r for r in envelope.rcpt_tos)
        if session.auth_data:
            head += "auth: %s\n" % session.auth_data
        path = os.path.join(args.dir, "msg-%d" % Handler.count)
        with open(path + ".tmp", "wb") as f:
            f.write(head.encode() + b"\n" + envelope.original_content)
        os.rename(path + ".tmp", path)
        return "250 OK stored"


def authenticate(server, session, envelope, mechanism, auth_data):
    user, password = args.login.split(":", 1)
    ok = auth_data.login == user.encode() and auth_data.password == password.encode()
    return AuthResult(success=ok, handled=False, auth_data=user if ok else None)


kwargs = {}
if args.cert:
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(args.cert, args.key)
    kwargs = dict(tls_context=context, require_starttls=True)
if args.login:
    kwargs.update(authenticator=authenticate, auth_required=True)
if args.silent:
    listener = socket.create_server(("127.0.0.1", args.port))
else:
    Controller(Handler(), hostname="127.0.0.1", port=args.port, **kwargs).start()
open(os.path.join(args.dir, "ready"), "w").close()
held = []
while args.silent:
    held.append(listener.accept()[0])  # holds every connection open, never greets
threading.Event().wait()
