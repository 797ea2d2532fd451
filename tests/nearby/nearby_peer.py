#!/usr/bin/env python3
"""A nearby peer written from the protocol's message table alone, to check Quillon's wire format.

receive [REFUSE]: listens on 127.0.0.1 (a free port, printed first), serves one connection as a
    receiver and prints what arrived, one line each: "STORE <command>", "DATA <bytes> <sha256>",
    "CMD <command>", and "CLOSED" at the end. The REFUSE-th STORE (1-based) is answered
    "RESPONSE_STORE ERROR".
send PORT: reads a JSON list of steps from standard input and prints one line per reply,
    "REPLY <text>" or "SILENCE":
      ["cmd", TEXT]                  sends TEXT and prints the reply
      ["quiet", TEXT]                sends TEXT and expects no reply within a second
      ["file", NAME, MILLIS, TEXT]   STORE, the bytes, the 0.25 s pause, STORE_COMPLETED;
                                     prints the replies to STORE and to STORE_COMPLETED
"""
import hashlib
import json
import socket
import sys
import time


def receive(refuse):
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(1)
    print(server.getsockname()[1], flush=True)
    conn, _ = server.accept()
    stores = 0
    while True:
        message = conn.recv(65536)
        if not message:
            print("CLOSED", flush=True)
            return
        text = message.decode("utf-8", "replace")
        if text == "STORE_COMPLETED":
            print("CMD " + text)
            conn.sendall(b"RESPONSE_STORE_COMPLETED")
        elif text.startswith("STORE"):
            print("STORE " + text)
            stores += 1
            parts = text.split(" ")
            if len(parts) < 4 or stores == refuse:
                conn.sendall(b"RESPONSE_STORE ERROR")
                continue
            size, got, digest = int(parts[1]), 0, hashlib.sha256()
            conn.sendall(b"RESPONSE_STORE OK")
            while got < size:
                block = conn.recv(min(65536, size - got))
                if not block:
                    break
                digest.update(block)
                got += len(block)
            print("DATA %d %s" % (got, digest.hexdigest()))
        elif text == "DISCONNECT":
            print("CMD " + text)
            conn.sendall(b"RESPONSE_DISCONNECT")
        else:
            print("CMD " + text)


def send(port, steps):
    conn = socket.create_connection(("127.0.0.1", port), timeout=60)

    def reply(timeout=30):
        conn.settimeout(timeout)
        try:
            data = conn.recv(4096)
            print("REPLY " + data.decode("utf-8", "replace") if data else "CLOSED", flush=True)
            return data
        except socket.timeout:
            print("SILENCE", flush=True)
            if timeout > 1:
                sys.exit(0)  # a reply that never came: the rest would only wait as well
            return None

    for step in steps:
        if step[0] in ("cmd", "quiet"):
            conn.sendall(step[1].encode())
            reply(30 if step[0] == "cmd" else 1)
        elif step[0] == "file":
            name, millis, content = step[1], step[2], step[3].encode()
            conn.sendall(("STORE %d %d %s" % (len(content), millis, name)).encode())
            if reply() == b"RESPONSE_STORE OK":
                conn.sendall(content)
                time.sleep(0.25)
                conn.sendall(b"STORE_COMPLETED")
                reply()


if __name__ == "__main__":
    if sys.argv[1] == "receive":
        receive(int(sys.argv[2]) if len(sys.argv) > 2 else 0)
    else:
        send(int(sys.argv[2]), json.load(sys.stdin))
