# Datagrams on their way through the built program, with clouds that work and clouds that fail.

import gzip
import json
import signal
import time
from dataclasses import dataclass
from datetime import datetime
from typing import Any
from unittest import skipIf

from testbed.cloud import Answer
from testbed.environment import SANITIZED, check_in
from testbed.processes import eventually
from tests.daemon.daemon_test_case import DaemonTest, without_times

WRONG_TYPE = '{"path":5,"request":{}}'


class Request(DaemonTest):
    def test_carries_the_signature_in_headers_and_the_rest_as_body(self) -> None:
        self.testbed.start_ready_daemon({"TZ": "Pacific/Auckland"})
        request = {"brantle_serial": " SN1", "token": "x", "data": {"id": 4}}
        self.relay(json.dumps({"path": "m1/SN1/x", "request": request}))
        seen = self.testbed.cloud.requests[0]
        self.assertEqual(seen.verdict, "signature valid")
        self.assertEqual(seen.path, "/api/m1/SN1/x")
        self.assertEqual(seen.headers["X-API-SERIAL"], "SN1")
        self.assertEqual(seen.body, '{"data":{"id":4}}\n')

    def test_uses_the_method_of_the_datagram(self) -> None:
        self.testbed.start_ready_daemon()
        sent_methods = {"PUT": "PUT", "GET": "GET", "put": "POST", "DELETE": "POST"}
        for method, sent in sent_methods.items():
            with self.subTest(method):
                reply = self.relay(json.dumps({"method": method, "path": "m1/x", "request": {}}))
                self.assertEqual(self.testbed.cloud.requests[-1].verdict, "signature valid")
                self.assertEqual(self.testbed.cloud.requests[-1].method, sent)
                self.assertEqual(reply["method"], method)

    def test_uses_post_when_the_method_is_not_a_string(self) -> None:
        self.testbed.start_ready_daemon()
        reply = self.relay('{"method":7,"path":"m1/x","request":{}}')
        self.assertEqual(self.testbed.cloud.requests[0].method, "POST")
        self.assertEqual(reply["method"], "POST")

    def test_has_an_empty_serial_header_without_a_serial(self) -> None:
        self.testbed.start_ready_daemon()
        for request in ("{}", '{"brantle_serial":" \\t"}'):
            with self.subTest(request):
                self.relay(f'{{"path":"p","request":{request}}}')
                self.assertEqual(self.testbed.cloud.requests[-1].headers["X-API-SERIAL"], "")

    def test_has_the_current_time_in_utc_with_microseconds(self) -> None:
        self.testbed.start_ready_daemon({"TZ": "Pacific/Auckland"})
        for _ in range(4):
            self.relay()
        stamps = [seen.headers["X-API-TIMESTAMP"] for seen in self.testbed.cloud.requests]
        for stamp in [*stamps, self.testbed.log()[:24]]:
            self.assertLess(abs(datetime.fromisoformat(stamp).timestamp() - time.time()), 5)
        # Without microseconds all four would be below 1000.
        self.assertTrue(any(int(stamp[-7:-1]) >= 1000 for stamp in stamps), stamps)

    def test_goes_to_the_host_of_the_trusted_certificate_only(self) -> None:
        self.testbed.start_ready_daemon()
        for number, certificate in enumerate(("stranger", "elsewhere"), 1):
            with self.subTest(certificate):
                self.testbed.cloud.close()
                self.testbed.cloud = self.testbed.make_cloud(certificate)
                self.testbed.send(check_in())
                self.assert_logged("ERROR CURL call to Server failed - SSL ", number)
                self.assertEqual(self.testbed.cloud.requests, [])


class Reply(DaemonTest):
    def test_holds_method_path_result_and_timestamp_on_one_line(self) -> None:
        self.testbed.start_ready_daemon()
        self.relay(check_in("m1/x", number=4))
        stamp = self.testbed.cloud.requests[0].headers["X-API-TIMESTAMP"]
        message = self.testbed.listener.on("lora/veyra")[0]
        self.assertEqual(
            message.payload.decode(),
            '{"method":"POST","path":"m1/x","result":{"accepted":true,"id":4,"number":1},'
            f'"timestamp":"{stamp}"}}',
        )
        self.assertEqual((message.qos, message.retain), (1, False))


class DeviceInformation(DaemonTest):
    DEVICE = '{"uuid":"00112233445566778899aabbccddeeff"}'
    SECRET = "00112233-4455-6677-8899-aabbccddeeff"

    def setUp(self) -> None:
        super().setUp()
        del self.testbed.configuration["network"]["gatewayKey"]

    def test_signs_requests_without_a_gateway_key(self) -> None:
        self.relay_with(self.DEVICE)

    def test_is_ignored_when_it_is_not_an_object(self) -> None:
        self.testbed.configuration["network"]["gatewayKey"] = self.SECRET
        self.relay_with(f"[{self.DEVICE}]")

    def relay_with(self, device: str) -> None:
        self.testbed.set_device(device)
        self.testbed.cloud.secret = self.SECRET
        self.testbed.start_ready_daemon()
        self.relay()

    def test_is_required_without_a_gateway_key(self) -> None:
        devices = {
            "no uuid": "{}",
            "invalid JSON": self.DEVICE[:-1] + ",}",
            "nested too deeply": self.DEVICE[:-1] + ',"x":' + "[" * 2000,
        }
        for name, device in devices.items():
            with self.subTest(name):
                self.testbed.set_device(device)
                self.assertEqual(self.testbed.start_daemon().wait(), -signal.SIGABRT)


@dataclass
class Response:
    """A response of the cloud, its log record and its published result."""

    name: str
    answer: Answer
    record: str
    result: Any = None


NORMAL = {"accepted": True, "id": 1}
DEEP = "[" * 900 + "]" * 900
LARGE = [{"number": number, "text": "x" * 100} for number in range(2000)]  # many pieces
COMPRESSED = Answer(body=gzip.compress(b"[5]"), headers={"Content-Encoding": "gzip"})
REDIRECT = Answer(307, headers={"Location": "/api/moved/m1/x"})
ACCEPTED = (
    Response("201", Answer(201), "TRACE POST code: 201 response:[{", NORMAL),
    Response("not JSON", Answer(body=b"ok"), "TRACE POST code: 200 Unable parse text as JSON [ok]"),
    Response("half a JSON value", Answer(body=b'{"a":1,'), "Unable parse text as JSON"),
    Response("NUL in JSON", Answer(body=b'["a\0b"]'), "Unable parse text as JSON"),
    Response("NUL after JSON", Answer(body=b"[7]\0]"), "TRACE POST code: 200 response:[", [7]),
    Response("empty", Answer(body=b""), "Unable parse text as JSON []"),
    Response("nested", Answer(body=DEEP.encode()), "response:[[[", json.loads(DEEP)),
    Response("in pieces", Answer(body=json.dumps(LARGE).encode()), "response:[[{", LARGE),
    Response("compressed", COMPRESSED, "response:[[5]]", [5]),
    Response("redirect", REDIRECT, "response:[{", NORMAL),
)
FAILED = (
    Response("202", Answer(202), "ERROR POST failed CODE:202 BODY:[{"),
    Response("204", Answer(204), "ERROR POST failed CODE:204 BODY:[]"),
    Response("500", Answer(500), "ERROR POST failed CODE:500 BODY:[{"),
    Response("cut", Answer(cut=True), "ERROR CURL call to Server failed - "),
)


class Responses(DaemonTest):
    def test_publishes_the_result_of_status_200_and_201(self) -> None:
        self.testbed.start_ready_daemon()
        for number, response in enumerate(ACCEPTED, 1):
            with self.subTest(response.name):
                records = self.records_after(response, "TRACE Curl Response ")
                self.assertIn(response.record, records)
                self.assert_replies(number)
                result = self.testbed.replies()[-1]["result"]
                if response.result == NORMAL:
                    del result["number"]
                self.assertEqual(result, response.result)

    def test_drops_the_datagram_on_any_other_status_and_on_a_cut_transfer(self) -> None:
        self.testbed.start_ready_daemon()
        for response in FAILED:
            with self.subTest(response.name):
                records = self.records_after(response, "ERROR Curl call failed m1/x\n")
                self.assertIn(response.record, records)
        self.relay()

    def records_after(self, response: Response, last: str) -> str:
        """Sends a datagram that gets the response. Returns the new records up to `last`."""
        self.testbed.cloud.answers.append(response.answer)
        seen, times = len(self.testbed.log()), self.testbed.log().count(last) + 1
        self.testbed.send(check_in())
        self.assert_logged(last, times)
        return self.testbed.log()[seen:]

    def test_waits_for_a_slow_response(self) -> None:
        self.testbed.start_ready_daemon()
        self.testbed.cloud.answers.append(Answer(stall_s=12))
        self.relay(seconds=30)

    @skipIf(SANITIZED, "sanitizers keep freed memory")
    def test_frees_the_memory_of_a_large_response(self) -> None:
        body = json.dumps([{"a": i, "b": "text", "c": [i, None]} for i in range(150000)]).encode()
        self.testbed.configuration["log"]["level"] = 30
        daemon = self.testbed.start_ready_daemon()
        self.relay()
        before_kib = daemon.resident_kib()
        large = [Answer(body=body), Answer(body=body[:-2]), Answer(500, body=body)]
        self.testbed.cloud.answers.extend(large)
        for number in range(6):
            self.testbed.send(check_in(number=number))
        self.assert_replies(6)
        self.assertTrue(eventually(lambda: daemon.resident_kib() < before_kib + 2048, 2))


MISSING_MEMBER = 'Invalid JSON expected "path" and "request" members.\n'
TOO_LONG = check_in(padding=16384)
REJECTED = {  # datagrams, and the start of their records
    "no json": "Failed to parse JSON no json\n",
    " null ": "Invalid JSON was nullValue  null \n",
    "[]": "Expected JSON object []\n",
    '{"path":"p"}': MISSING_MEMBER,
    '{"request":{}}': MISSING_MEMBER,
    "{}\0" + check_in(): MISSING_MEMBER,
    WRONG_TYPE: f"EXCEPTION: Failed to parse JSON [{WRONG_TYPE}]\n",
    '{"path":"p","request":null}': "EXCEPTION: Failed to parse JSON [{",
    "[" * 3000: "EXCEPTION: Failed to parse JSON [[[[",
    TOO_LONG: f"Failed to parse JSON {TOO_LONG[:16384]}\n",
}


class Datagram(DaemonTest):
    def test_is_rejected_with_one_record_when_it_is_invalid(self) -> None:
        self.testbed.start_ready_daemon()
        for number, (datagram, record) in enumerate(REJECTED.items(), 1):
            with self.subTest(datagram[:40]):
                self.testbed.send(datagram)
                self.assert_logged("Z ERROR ", number)
                records = without_times(self.testbed.log()).split("\nERROR ")[1:]
                self.assertEqual(len(records), number)
                self.assertTrue(f"{records[-1]}\n".startswith(record), records[-1])
        self.assertEqual(self.testbed.cloud.requests, [])

    def test_is_accepted_with_up_to_16384_bytes(self) -> None:
        self.testbed.start_ready_daemon()
        self.relay(check_in(padding=16384 - len(check_in())))
        self.assertIn("TRACE Parse upstream message 16384 bytes\n", self.testbed.log())

    def test_is_ignored_when_it_is_empty(self) -> None:
        self.testbed.start_ready_daemon()
        self.testbed.send("")
        self.testbed.send("no json")
        self.assert_logged("ERROR Failed to parse JSON no json\n")
        self.assertEqual(self.testbed.log().count("TRACE Parse upstream message ["), 1)


class Breaker(DaemonTest):
    REFUSED = "WARNING Circuit is broken, too many failed requests, backoff "

    def send_refused(self, *answers: Answer) -> int:
        """Sends a datagram for each answer, and one that is dropped. Returns the logged backoff."""
        self.testbed.cloud.answers.extend(answers)
        self.testbed.start_ready_daemon()
        for _ in answers:
            self.testbed.send(WRONG_TYPE)  # is not counted as a failure
            self.testbed.send(check_in())
        self.testbed.send(WRONG_TYPE)
        self.assert_logged(self.REFUSED)
        self.assertEqual(len(self.testbed.cloud.requests), len(answers))
        return int(self.testbed.log().partition(self.REFUSED)[2].split(" ms\n")[0])

    def test_opens_the_circuit_after_ten_failures_in_a_row(self) -> None:
        failure, success = Answer(500), Answer()
        backoff_ms = self.send_refused(*[failure] * 9, success, *[failure] * 10)
        self.assertTrue(4000 < backoff_ms < 6000, backoff_ms)

    def test_takes_any_configured_integer_as_1(self) -> None:
        self.testbed.configuration["veyra"] = {"breakerThreshold": 25, "breakerTime": 60000}
        backoff_ms = self.send_refused(Answer(500))
        self.assertTrue(0 <= backoff_ms <= 1001, backoff_ms)

    def test_is_checked_after_the_syntax_and_before_the_types(self) -> None:
        self.send_refused(*[Answer(500)] * 10)
        self.testbed.send("no json")
        self.assert_logged("ERROR Failed to parse JSON no json\n")
        self.assertEqual(self.testbed.log().count(self.REFUSED), 1)
        self.assertEqual(self.testbed.log().count("EXCEPTION"), 10, "none while it is open")
