#!/usr/bin/python3
"""A receiver for the memory benchmark: it takes bodies of any size, keeps none
of them, and answers "Active".

    bench/sink.py LOG

Listens on a free port of 127.0.0.1 and prints "listening on PORT". For each
request it reads the headers and then exactly Content-Length body bytes
(fewer when the client closes first), and appends one line to LOG:

    length=CONTENT_LENGTH received=BYTES boundary=BOUNDARY_LENGTH

Serves one connection at a time until killed.
"""
import socket
import sys


def serve(connection, log):
    pending = b""
    while True:
        while b"\r\n\r\n" not in pending:
            chunk = connection.recv(65536)
            if not chunk:
                return
            pending += chunk
        head, pending = pending.split(b"\r\n\r\n", 1)
        length, boundary = 0, b""
        for line in head.split(b"\r\n")[1:]:
            name, _, value = line.partition(b":")
            if name.strip().lower() == b"content-length":
                length = int(value.strip())
            elif name.strip().lower() == b"content-type":
                boundary = value.split(b"boundary=")[-1].strip()
        received = min(len(pending), length)
        pending = pending[received:]
        buffer = bytearray(1 << 20)
        while received < length:
            count = connection.recv_into(buffer, min(len(buffer), length - received))
            if count == 0:
                break
            received += count
        log.write("length=%d received=%d boundary=%d\n" % (length, received, len(boundary)))
        log.flush()
        if received < length:
            return
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nActive")


def main():
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    print("listening on %d" % listener.getsockname()[1], flush=True)
    with open(sys.argv[1], "a") as log:
        while True:
            connection, _ = listener.accept()
            with connection:
                try:
                    serve(connection, log)
                except OSError:
                    pass


if __name__ == "__main__":
    main()
