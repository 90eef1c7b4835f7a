"""The mock cloud: an HTTPS server that checks every request as the Veyra cloud does.

`python3 -m testbed.cloud CERTIFICATE KEY SECRET PORT` runs it and prints each request as JSON.
"""

import hashlib
import json
import re
import ssl
import sys
import threading
import time
from collections import deque
from dataclasses import asdict, dataclass, field, replace
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any

PREFIX = "/api/"
MOVED = "/api/moved/"  # the target of redirects
TIMESTAMP = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z")


@dataclass
class Answer:
    """The response to a valid request. Without a body it gets the default body."""

    status: int = 200
    body: bytes | None = None
    headers: dict[str, str] = field(default_factory=dict)
    stall_s: float = 0
    cut: bool = False  # the connection is closed in the middle of the body


@dataclass
class Request:
    number: int
    connection: int  # the client's port
    method: str
    path: str
    headers: dict[str, str]  # in the order and the spelling of the request
    body: str
    verdict: str
    status: int = 0  # of the response; 0 if that was cut


def header_fault(headers: dict[str, str]) -> str:
    wanted = {"Accept": "application/json", "Content-Type": "application/json", "charsets": "utf-8"}
    for name, value in wanted.items():
        if headers.get(name) != value:
            return f"{name} is {headers.get(name)}"
    if "X-API-SERIAL" not in headers:
        return "no X-API-SERIAL"
    if not TIMESTAMP.fullmatch(headers.get("X-API-TIMESTAMP", "")):
        return "no timestamp"
    return ""


def body_fault(method: str, headers: dict[str, str], body: str) -> str:
    if method == "GET":
        return "GET with a body" if "Content-Length" in headers else ""
    try:
        members = json.loads(body)
    except ValueError:
        return "the body is not JSON"
    if not isinstance(members, dict) or {"brantle_serial", "token", "timestamp"} & members.keys():
        return "the body has members that belong in headers"
    return ""


def verdict_of(secret: str, method: str, path: str, headers: dict[str, str], body: str) -> str:
    """The fault of a request, or "signature valid"."""
    fault = header_fault(headers) or body_fault(method, headers, body)
    if fault or not path.startswith(PREFIX):
        return fault or "the path does not start with " + PREFIX
    signed = secret + headers["X-API-TIMESTAMP"] + path.replace(MOVED, PREFIX)
    if headers.get("X-API-HASH") != hashlib.sha256(signed.encode()).hexdigest():
        return "X-API-HASH does not match"
    return "signature valid"


def data_id(body: str) -> Any:
    data = json.loads(body or "{}").get("data")
    return data.get("id") if isinstance(data, dict) else None


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, *_: object) -> None:
        if not isinstance(sys.exception(), OSError):  # a closed connection is not a fault here
            super().handle_error(*_)  # type: ignore[arg-type]


class Cloud:
    """Serves requests in threads of its own."""

    def __init__(self, certificate: Path, key: Path, secret: str, port: int) -> None:
        self.secret = secret
        self.requests: list[Request] = []
        self.answer = Answer()  # used when `answers` is empty
        self.answers: deque[Answer] = deque()  # for the next requests, in order
        self.head = Answer(404)  # for unsigned HEAD requests, which are not recorded
        self.clock_ahead_s = 0
        self._lock = threading.Lock()
        self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.tls.load_cert_chain(certificate, key)
        self._server = server = Server(("127.0.0.1", port), Handler)
        server.cloud = self  # type: ignore[attr-defined]
        threading.Thread(target=server.serve_forever, args=(0.02,), daemon=True).start()

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()

    def take(self, request: Request) -> Answer:
        with self._lock:
            request.number = len(self.requests) + 1
            self.requests.append(request)
            if request.verdict != "signature valid":
                request.status = 401
                return Answer(401, json.dumps({"error": request.verdict}).encode())
            moved = request.path.startswith(MOVED)
            answer = self.answers.popleft() if self.answers and not moved else self.answer
            request.status = 0 if answer.cut else answer.status
        if answer.body is not None:
            return answer
        reply = {"accepted": True, "id": data_id(request.body), "number": request.number}
        return replace(answer, body=json.dumps(reply).encode())


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    wbufsize = -1  # one write for each response
    trusted = True

    def setup(self) -> None:
        self.cloud: Cloud = self.server.cloud  # type: ignore[attr-defined]
        try:
            self.request = self.cloud.tls.wrap_socket(self.request, server_side=True)
        except OSError:  # the client does not trust this server or has disconnected
            self.trusted = False
        super().setup()

    def handle(self) -> None:
        if self.trusted:
            super().handle()

    def finish(self) -> None:
        super().finish()
        self.request.close()

    def serve(self) -> None:
        body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
        headers = dict(self.headers.items())
        verdict = verdict_of(self.cloud.secret, self.command, self.path, headers, body)
        if len(headers) != len(self.headers):
            verdict = "a header is repeated"
        port = self.client_address[1]
        request = Request(0, port, self.command, self.path, headers, body, verdict)
        self.reply(self.cloud.take(request))

    do_GET = do_POST = do_PUT = do_DELETE = serve

    def do_HEAD(self) -> None:
        self.reply(replace(self.cloud.head, body=b""))

    def date_time_string(self, timestamp: int | None = None) -> str:
        now = timestamp or int(time.time())
        return super().date_time_string(now + self.cloud.clock_ahead_s)

    def reply(self, answer: Answer) -> None:
        time.sleep(answer.stall_s)
        body = b"" if answer.status == 204 else answer.body or b""
        self.send_response(answer.status)
        if "Content-Type" not in answer.headers:
            self.send_header("Content-Type", "application/json")
        for name, value in answer.headers.items():
            self.send_header(name, value)
        if answer.status != 204:
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body[: len(body) // 2] if answer.cut else body)
        self.wfile.flush()
        self.close_connection = answer.cut

    def log_message(self, *_: object) -> None:
        pass


def main() -> None:
    cloud = Cloud(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3], int(sys.argv[4]))
    print("listening", flush=True)
    printed = 0
    while True:
        for request in cloud.requests[printed:]:
            print(json.dumps(asdict(request)), flush=True)
            printed += 1
        time.sleep(0.02)


if __name__ == "__main__":
    main()
