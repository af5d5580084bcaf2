"""SMTP peers for the mail submission tests, on a free 127.0.0.1 port.

Usage: smtp_peer.py DIR MODE [STEP=CODE ...]

MODE "real" runs aiosmtpd. Each message it accepts is written as DIR/mail-N.eml
(the bytes as received, dots unstuffed), and Python's email package writes what
it read: DIR/mail-N.body (the decoded body) and DIR/mail-N.json (the envelope,
the HELO name and the header lines in order). STEP=CODE refuses a step with that
code: HELO, MAIL, RCPT or END (the end of the message).

The other modes are scripted peers that the real server cannot play:
  greeting554  greets with 554
  data250      accepts HELO, MAIL and RCPT, then answers DATA with 250
  silent       accepts the connection and never says anything
  trickle      sends a greeting that never ends, one byte every 200 ms

The port is written to DIR/port once the peer listens. The peer stops on
SIGTERM, or by itself after two minutes.
"""

import email
import email.policy
import json
import os
import signal
import socket
import sys
import threading
import time

LIFETIME = 120


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def announce(folder, port):
    tmp = os.path.join(folder, "port.tmp")
    with open(tmp, "w") as f:
        f.write(str(port))
    os.rename(tmp, os.path.join(folder, "port"))


class Handler:
    def __init__(self, folder, refusals):
        self.folder = folder
        self.refusals = refusals
        self.count = 0

    def refusal(self, step):
        code = self.refusals.get(step)
        return None if code is None else "%s refused by the test" % code

    async def handle_HELO(self, server, session, envelope, hostname):
        session.host_name = hostname
        return self.refusal("HELO") or "250 test.invalid"

    async def handle_MAIL(self, server, session, envelope, address, options):
        refused = self.refusal("MAIL")
        if refused:
            return refused
        envelope.mail_from = address
        return "250 OK"

    async def handle_RCPT(self, server, session, envelope, address, options):
        refused = self.refusal("RCPT")
        if refused:
            return refused
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        refused = self.refusal("END")
        if refused:
            return refused
        self.count += 1
        base = os.path.join(self.folder, "mail-%d" % self.count)
        raw = envelope.original_content
        message = email.message_from_bytes(raw, policy=email.policy.compat32)
        with open(base + ".body", "wb") as f:
            f.write(message.get_payload(decode=True) or b"")
        info = {
            "helo": session.host_name,
            "mail_from": envelope.mail_from,
            "rcpt_tos": envelope.rcpt_tos,
            "headers": [[k, v] for k, v in message.items()],
            "defects": [str(d) for d in message.defects],
        }
        with open(base + ".json", "w") as f:
            json.dump(info, f)
        with open(base + ".eml", "wb") as f:
            f.write(raw)
        return "250 OK queued"


def run_real(folder, refusals):
    from aiosmtpd.controller import Controller

    port = free_port()
    controller = Controller(Handler(folder, refusals), hostname="127.0.0.1", port=port)
    controller.start()
    announce(folder, port)
    try:
        stop.wait(LIFETIME)
    finally:
        controller.stop()


def serve_client(mode, conn):
    with conn:
        conn.settimeout(LIFETIME)
        if mode == "greeting554":
            conn.sendall(b"554 no service here\r\n")
            conn.recv(1024)
        elif mode == "silent":
            stop.wait(LIFETIME)
        elif mode == "trickle":
            while not stop.wait(0.2):
                conn.sendall(b"2")
        elif mode == "data250":
            conn.sendall(b"220 test.invalid ready\r\n")
            buffered = b""
            while True:
                data = conn.recv(4096)
                if not data:
                    return
                buffered += data
                while b"\r\n" in buffered:
                    line, buffered = buffered.split(b"\r\n", 1)
                    conn.sendall(b"221 bye\r\n" if line == b"QUIT" else b"250 OK\r\n")


def run_scripted(folder, mode):
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(4)
        listener.settimeout(0.2)
        announce(folder, listener.getsockname()[1])
        deadline = time.monotonic() + LIFETIME
        while not stop.is_set() and time.monotonic() < deadline:
            try:
                conn, _ = listener.accept()
            except socket.timeout:
                continue
            threading.Thread(target=serve_client, args=(mode, conn), daemon=True).start()


stop = threading.Event()


def main():
    folder, mode = sys.argv[1], sys.argv[2]
    refusals = dict(arg.split("=", 1) for arg in sys.argv[3:])
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    if mode == "real":
        run_real(folder, refusals)
    else:
        run_scripted(folder, mode)


if __name__ == "__main__":
    main()
