"""A proxy in front of a server that counts connections and can cut them."""

import contextlib
import re
import socket
import threading

PASSIVE_REPLY = re.compile(rb"(?<=\(\|\|\|)\d+(?=\|\))")


def listen():
    return socket.create_server(("127.0.0.1", 0))


class Proxy:
    """Forwards connections to server, which knows it as its `front`.

    A connection ends after next_limit() bytes from the server; None means no limit. The connections
    for an FTP server's data count together with their control connection.
    """

    def __init__(self, _, server):
        self.server = server
        self.next_limit = lambda: None
        self.connections = 0
        self.sockets = []
        self.listener = listen()
        self.port = self.listener.getsockname()[1]
        server.front = self
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.listener.accept()
                self.connections += 1
                Session(self, self.next_limit()).join(client, self.server.port)

    def close(self):
        for each in [self.listener, *self.sockets]:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()


class Session:
    """The connections of one login."""

    def __init__(self, proxy, limit):
        self.proxy = proxy
        self.left = limit
        self.sockets = []

    def join(self, client, port):
        """Connects a client with a port of the server."""
        self.add(client)
        try:
            server = self.add(socket.create_connection(("127.0.0.1", port)))
        except OSError:
            self.end(client)
            return
        for source, target in ((client, server), (server, client)):
            threading.Thread(
                target=self.copy, args=(source, target, source is server), daemon=True
            ).start()

    def add(self, new):
        self.sockets.append(new)
        self.proxy.sockets.append(new)
        return new

    @staticmethod
    def end(*sockets):
        for each in sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)

    def copy(self, source, target, is_from_server):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                if is_from_server:
                    data = self.translate(data)[: self.left]
                    if self.left is not None:
                        self.left -= len(data)
                target.sendall(data)
                if self.left == 0:
                    self.end(*self.sockets)
        self.end(source, target)

    def translate(self, data):
        """Replaces a port that an FTP server offers by a port of the proxy."""
        found = PASSIVE_REPLY.search(data)
        if not found:
            return data
        listener = self.add(listen())

        def accept():
            with contextlib.suppress(OSError):
                self.join(listener.accept()[0], int(found[0]))

        threading.Thread(target=accept, daemon=True).start()
        port = str(listener.getsockname()[1]).encode()
        return data[: found.start()] + port + data[found.end() :]
