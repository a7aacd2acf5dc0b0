#!/usr/bin/env python3
"""A loopback peer that answers one query with a large or wide answer, for measuring what such
answers cost the client (bench/client-memory.sh). It listens on 127.0.0.1, prints
"listening on 127.0.0.1:PORT", serves one connection and exits. Answers are generated while they
are sent, so the peer itself stays small whatever it sends.

    hostile_peer.py CASE

CASE is one of:
  big_frame      one data message of just under 1 GiB: 1024 texts of 1,040,000 bytes
  partial_frame  a data message announcing 1 GiB, 300 MB of it sent, then the connection closed
  columns        20,000 columns of "sint", one data message of 1024 rows
  text_columns   20,000 columns of "str", one data message of 1024 rows of 8-byte texts
  error_params   an error record with 50 parameters of 1 MB each (template "Internal error: %0.")
"""
import socket
import struct
import sys

CHUNK = 1 << 16


def be32(v):
    return struct.pack(">I", v & 0xFFFFFFFF)


def var_prefix(n):
    return bytes([255] * (n // 255) + [n % 255])


def var(b):
    b = b.encode() if isinstance(b, str) else b
    return var_prefix(len(b)) + b


def frame(body):
    return be32(len(body) + 4) + body


def ack(vector_size, columns):
    """columns: (name, ltype, ptype)."""
    body = be32(0) + be32(len(columns)) + be32(vector_size)
    body += b"".join(var(c[0]) for c in columns)
    body += b"".join(be32(0) + var(c[1]) + var(c[2]) for c in columns)
    return frame(body)


def end():
    return frame(be32(0) + be32(0))


class Sender:
    """Sends in chunks of CHUNK bytes so that nothing large is ever built."""

    def __init__(self, conn):
        self.conn = conn
        self.pending = bytearray()

    def put(self, data):
        self.pending += data
        if len(self.pending) >= CHUNK:
            self.flush()

    def flush(self):
        if self.pending:
            self.conn.sendall(self.pending)
            self.pending = bytearray()


def big_frame(out, announce=None, send_bytes=None):
    rows, length = 1024, 1040000
    out.put(ack(rows, [("s", "varchar", "str")]))
    field = var_prefix(length) + b"x" * length
    total = 4 + 8 + rows * len(field)
    assert total <= 1 << 30
    out.put(be32(announce or total) + be32(0) + be32(rows))
    sent = 0
    for _ in range(rows):
        for i in range(0, len(field), CHUNK):
            piece = field[i:i + CHUNK]
            if send_bytes is not None and sent + len(piece) > send_bytes:
                out.flush()
                return False
            out.put(piece)
            sent += len(piece)
    out.put(end())
    return True


def partial_frame(out):
    big_frame(out, announce=1 << 30, send_bytes=300 * 1000 * 1000)


def columns(out, ptype="sint", ltype="int"):
    n, rows = 20000, 1024
    out.put(ack(rows, [("c%d" % i, ltype, ptype) for i in range(n)]))
    if ptype == "str":
        block = var("12345678") * rows
    else:
        block = struct.pack("<%di" % rows, *range(rows))
    out.put(be32(12 + n * len(block)) + be32(0) + be32(rows))
    for _ in range(n):
        out.put(block)
    out.put(end())


def text_columns(out):
    columns(out, "str", "varchar")


def error_params(out):
    n, length = 50, 1000000
    body_len = 12 + n * (len(var_prefix(length)) + length)
    out.put(be32(body_len + 4) + be32(0xFFFFFFFF) + be32(1) + be32(n))
    for _ in range(n):
        out.put(var_prefix(length))
        for i in range(0, length, CHUNK):
            out.put(b"p" * min(CHUNK, length - i))


CASES = {"big_frame": big_frame, "partial_frame": partial_frame, "columns": columns,
         "text_columns": text_columns, "error_params": error_params}


def read_frame(conn):
    header = b""
    while len(header) < 4:
        got = conn.recv(4 - len(header))
        if not got:
            return None
        header += got
    left = struct.unpack(">I", header)[0] - 4
    while left > 0:
        got = conn.recv(min(left, CHUNK))
        if not got:
            return None
        left -= len(got)
    return True


def main():
    if len(sys.argv) != 2 or sys.argv[1] not in CASES:
        sys.exit(__doc__)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    listener.settimeout(60)
    print("listening on 127.0.0.1:%d" % listener.getsockname()[1], flush=True)
    conn, _ = listener.accept()
    conn.settimeout(120)
    with conn:
        if read_frame(conn):
            out = Sender(conn)
            CASES[sys.argv[1]](out)
            out.flush()
        conn.shutdown(socket.SHUT_WR)
        while conn.recv(CHUNK):
            pass


if __name__ == "__main__":
    main()
