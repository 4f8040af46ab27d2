#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A relay on loopback that cuts its first connection after so many bytes, and only that one.

usage: cutting_relay.py ADDR:PORT BYTES    prints the address that it listens on
"""
import socket
import sys
import threading


def pump(source, sink, budget, cut):
    try:
        while True:
            data = source.recv(1 << 16)
            if not data:
                break
            sink.sendall(data)
            if budget is not None:
                budget -= len(data)
                if budget <= 0:
                    cut()
                    return
    except OSError:
        pass
    for end in (source, sink):
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def main():
    host, port = sys.argv[1].rsplit(":", 1)
    budget = int(sys.argv[2])
    listener = socket.create_server(("127.0.0.1", 0))
    print("127.0.0.1:%d" % listener.getsockname()[1], flush=True)
    while True:
        client, _ = listener.accept()
        server = socket.create_connection((host, int(port)))

        def cut(client=client, server=server):
            for end in (client, server):
                end.close()
            print("the connection was cut after %d bytes" % int(sys.argv[2]), flush=True)

        threading.Thread(target=pump, args=(client, server, budget, cut), daemon=True).start()
        threading.Thread(target=pump, args=(server, client, None, None), daemon=True).start()
        budget = None


if __name__ == "__main__":
    main()
