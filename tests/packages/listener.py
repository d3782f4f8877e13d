"""Listens for progress until it is killed: listener.py PATH. Prints what it reads, a line for each read.

With a second argument it listens, and never takes a connection.
"""

import os
import signal
import socket
import sys

signal.alarm(60)  # a test that waits in vain fails
path = sys.argv[1]
if os.path.exists(path):
    os.unlink(path)
with socket.socket(socket.AF_UNIX) as server:
    server.bind(path)
    server.listen(5)
    print("ready", flush=True)
    while len(sys.argv) > 2:
        sys.stdin.read(1)
    while True:
        connection, _ = server.accept()
        while chunk := connection.recv(1024):
            print(chunk.decode(), flush=True)
