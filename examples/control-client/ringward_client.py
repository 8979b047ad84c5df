#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A client of the agent's control socket in another language, with nothing but the standard library.

    ringward_client.py [--socket PATH] get PATH
    ringward_client.py [--socket PATH] set PATH VALUE
    ringward_client.py [--socket PATH] del PATH
    ringward_client.py [--socket PATH] ls [PATH]

docs/formats.md, "Control socket", describes every byte.
"""
import argparse
import socket
import struct
import sys

MAGIC = b"RINGWARD"
HELLO, REQUEST, ANSWER, FAREWELL = 16, 17, 18, 19
OPERATIONS = {"get": 1, "set": 2, "del": 3, "ls": 4, "call": 5, "subscribe": 6}
STATUS = {1: "refused", 2: "failed"}
LS_FIELDS = ("name", "kind", "type", "text", "writable", "members")
MAX_FRAME = 64 * 1024


class Refused(Exception):
    """The agent's answer to a request that it did not carry out."""


class Client:
    def __init__(self, path, name="example"):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path)
        text = name.encode()
        self.send(HELLO, MAGIC + struct.pack(">HBIH", 1, 2, 1, len(text)) + text)
        kind, body = self.receive()
        if kind != HELLO or body[:8] != MAGIC:
            raise ConnectionError("no hello from the agent")
        self.version, _, self.capabilities, size = struct.unpack(">HBIH", body[8:17])
        self.agent = body[17:17 + size].decode(errors="replace")
        self.may_write = bool(self.capabilities & 4)
        self.last_id = 0

    def close(self):
        self.socket.close()

    def send(self, kind, body):
        self.socket.sendall(struct.pack(">IB", len(body) + 1, kind) + body)

    def exactly(self, size):
        data = b""
        while len(data) < size:
            part = self.socket.recv(size - len(data))
            if not part:
                raise ConnectionError("the agent has closed the connection")
            data += part
        return data

    def receive(self):
        """The next frame: its type and its body."""
        length, kind = struct.unpack(">IB", self.exactly(5))
        if not 1 <= length <= MAX_FRAME:
            raise ConnectionError(f"a frame of {length} bytes")
        body = self.exactly(length - 1)
        if kind == FAREWELL:
            raise ConnectionError(body[2:].decode(errors="replace"))
        return kind, body

    def request(self, operation, *texts):
        """Sends one request and waits for its answer: (texts, whether a list goes on)."""
        self.last_id += 1
        body = struct.pack(">IBB", self.last_id, OPERATIONS[operation], len(texts))
        for text in texts:
            data = text.encode()
            body += struct.pack(">H", len(data)) + data
        self.send(REQUEST, body)
        while True:
            kind, body = self.receive()
            if kind != ANSWER:
                continue  # a frame of the attribute log, or of a later version
            answer_id, status, more, count = struct.unpack(">IBBH", body[:8])
            if answer_id == self.last_id:
                break
        at, result = 8, []
        for _ in range(count):
            (size,) = struct.unpack(">H", body[at:at + 2])
            result.append(body[at + 2:at + 2 + size].decode(errors="replace"))
            at += 2 + size
        if status != 0:
            raise Refused(f"{STATUS[status]}: {result[0]}")
        return result, bool(more)

    def get(self, path):
        return self.request("get", path)[0][0]

    def set(self, path, text):
        self.request("set", path, text)

    def delete(self, path):
        self.request("del", path)

    def ls(self, path=""):
        """Every node below a path, over as many answers as it takes."""
        after, more = "", True
        while more:
            texts, more = self.request("ls", path, after)
            for i in range(0, len(texts), len(LS_FIELDS)):
                node = dict(zip(LS_FIELDS, texts[i:i + len(LS_FIELDS)]))
                after = node["name"]
                yield node


def main():
    parser = argparse.ArgumentParser(description="Talks to the agent.")
    parser.add_argument("--socket", default="/run/ringward/ringwardd.sock")
    parser.add_argument("operation", choices=("get", "set", "del", "ls"))
    parser.add_argument("texts", nargs="*")
    arguments = parser.parse_args()
    try:
        client = Client(arguments.socket)
        if arguments.operation == "get":
            print(repr(client.get(*arguments.texts)))
        elif arguments.operation == "set":
            client.set(*arguments.texts)
        elif arguments.operation == "del":
            client.delete(*arguments.texts)
        else:
            for node in client.ls(*arguments.texts):
                print(node["name"], "rw" if node["writable"] == "1" else "r-", repr(node["text"]))
    except (OSError, Refused, TypeError) as error:
        print(f"{sys.argv[0]}: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
