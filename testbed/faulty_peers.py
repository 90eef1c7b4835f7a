"""Peers that do not answer, or give the answers of a script."""

import socket
import threading
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, ExitStack, contextmanager, suppress
from pathlib import Path
from socketserver import BaseRequestHandler, BaseServer, ThreadingTCPServer, UDPServer

from testbed.environment import BROKER_HOST, BROKER_PORT
from testbed.system import replace_file


@contextmanager
def silent_listener(host: str, port: int) -> Iterator[None]:
    """An address that does not answer: the backlog of its listener is full."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    with socket.create_server((host, port), family=family, backlog=0), ExitStack() as clients:
        for _ in range(2):
            client = clients.enter_context(socket.socket(family, socket.SOCK_STREAM))
            client.setblocking(False)
            client.connect_ex((host, port))
        yield


class Server(ThreadingTCPServer):
    allow_reuse_address = daemon_threads = True


@contextmanager
def serving(server: BaseServer) -> Iterator[None]:
    with server:
        threading.Thread(target=server.serve_forever, args=(0.02,), daemon=True).start()
        try:
            yield
        finally:
            server.shutdown()


def scripted_server(
    host: str, port: int, answer: Callable[[bytes], bytes | None]
) -> AbstractContextManager[None]:
    """Answers what a client sends. An answer of None ends the connection."""

    class Connection(BaseRequestHandler):
        def handle(self) -> None:
            with suppress(ConnectionError):
                while packet := self.request.recv(4096):
                    reply = answer(packet)
                    if reply is None:
                        return
                    self.request.sendall(reply)

    return serving(Server((host, port), Connection))


def scripted_broker(
    connack: bytes, suback: bytes, port: int = BROKER_PORT
) -> AbstractContextManager[None]:
    """Answers every CONNECT and every SUBSCRIBE with these bytes."""
    answers = {0x10: connack, 0x82: suback}
    return scripted_server(BROKER_HOST, port, lambda packet: answers.get(packet[0], b""))


@contextmanager
def name_server(folder: Path, code: int | None) -> Iterator[None]:
    """The only name server. It answers every query with this response code, or not at all."""

    class Query(BaseRequestHandler):
        def handle(self) -> None:
            query, server = self.request
            if code is not None:
                head = query[:2] + bytes([0x81, 0x80 | code]) + query[4:6] + bytes(6)
                server.sendto(head + query[12:], self.client_address)

    replace_file("/etc/resolv.conf", "nameserver 127.0.0.53\n", folder)
    with serving(UDPServer(("127.0.0.53", 53), Query)):
        yield
