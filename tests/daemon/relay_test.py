# Datagrams on their way through the built program, with good and with faulty clouds.

import gzip
import json
import re
import signal
import time
from datetime import datetime
from typing import Any
from unittest import skipIf

from testbed.cloud import Answer
from testbed.environment import SANITIZED, check_in
from testbed.processes import eventually
from tests.daemon.daemon_test_case import DaemonTest


class Relay(DaemonTest):
    def test_signs_requests_and_publishes_the_answers(self) -> None:
        # The method of the datagram: of the reply, on the wire.
        cases: dict[Any, tuple[str, str]] = {"PUT": ("PUT", "PUT"), "GET": ("GET", "GET"),
                                             "put": ("put", "POST"), 7: ("POST", "POST"),
                                             None: ("POST", "POST")}
        self.testbed.start_ready_daemon({"TZ": "Pacific/Auckland"})
        request = {"brantle_serial": " SN1", "token": "x", "data": {"id": 4}}
        for method in cases:
            datagram = {"method": method, "path": "m1/SN1/x", "request": request}
            self.testbed.send(json.dumps(datagram))
        for serial in ("", '"brantle_serial":" \\t"'):
            self.testbed.send('{"path":"p","request":{%s}}' % serial)
        replies = self.testbed.replies(len(cases) + 2)
        requests = self.testbed.cloud.requests
        stamps = [request.headers["X-API-TIMESTAMP"] for request in requests]
        for (replied, sent), reply, seen in zip(cases.values(), replies, requests):
            line = (seen.verdict, seen.method, seen.path, seen.headers["X-API-SERIAL"])
            self.assertEqual(line, ("signature valid", sent, "/api/m1/SN1/x", "SN1"))
            body, number = ("", None) if sent == "GET" else ('{"data":{"id":4}}\n', 4)
            self.assertEqual(seen.body, body)
            result = {"accepted": True, "id": number, "number": seen.number}
            self.assertEqual(reply, {"method": replied, "path": "m1/SN1/x", "result": result,
                                     "timestamp": seen.headers["X-API-TIMESTAMP"]})
        self.assertEqual([request.headers["X-API-SERIAL"] for request in requests[5:]], ["", ""])
        for stamp in [*stamps, self.testbed.log()[:24]]:
            self.assertLess(abs(datetime.fromisoformat(stamp).timestamp() - time.time()), 5)
        # Microseconds, of which a thousandth at most is below a millisecond.
        self.assertTrue(any(int(stamp[-7:-1]) >= 1000 for stamp in stamps), stamps)
        for message in self.testbed.listener.on("lora/veyra"):
            self.assertEqual((message.qos, message.retain), (1, False))
            self.assertRegex(message.payload.decode(), r'^\{"method":".*"\}\Z')

    def test_signs_with_the_secret_of_key_and_device(self) -> None:
        whole = "00112233-4455-6677-8899-aabbccddeeff"
        digits = whole.replace("-", "").upper()
        cases = [  # the device file, the gateway key, the secret; without one it aborts
            ('{"uuid":"x",\n"deviceId":"\\n dev"}', " 00:11-" + digits[4:] + "\t", whole + "dev"),
            ('{"deviceId":7}', "fffaa" + digits[1:], "a" + whole[1:]),
            ("[]", "abc", "00000000-0000-0000-0000-000000000abc"),
            ("", "no key 12", "00000000-0000-0000-0000-000000000012"),
            ('{"deviceId":"d"}', "g" + digits, "d"),
            ('{"uuid":" %s ","deviceId":"d"}' % digits, None, whole + "d"),
            ('{"uuid":"0123456789abcdefghij"}', " ", "01234567-89ab-cdef-ghij-"),
            ('{"uuid":"%sLMN"}' % digits, None, whole + "lmn"),
            ('{"uuid":"0123456789abcdefghi"}', 5, None),
            ('{"uuid":"%s",}' % digits, None, None),
            ('[{"uuid":"%s"}]' % digits, None, None),
            ('{"uuid":"%s","x":%s' % (digits, "[" * 2000), None, None),
        ]
        for number, (device, key, secret) in enumerate(cases):
            self.testbed.set_device(device)
            self.testbed.configuration["network"]["gatewayKey"] = key
            if secret is None:
                self.assertEqual(self.testbed.start_daemon().wait(), -signal.SIGABRT, device)
            else:
                self.testbed.cloud.secret = secret
                self.testbed.start_ready_daemon()
                self.testbed.send(check_in())
                self.assertEqual(len(self.testbed.replies(number + 1)), number + 1, device)

    def test_reacts_to_every_kind_of_answer(self) -> None:
        deep = "[" * 900 + "]" * 900
        packed = Answer(body=gzip.compress(b"[5]"), headers={"Content-Encoding": "gzip"})
        cases: list[tuple[Answer, Any, str]] = [  # the result published, None without a reply
            (Answer(201), "normal", "TRACE POST code: 201 response:[{"),
            (Answer(202), None, "ERROR POST failed CODE:202 BODY:[{"),
            (Answer(body=b"ok"), "null", "TRACE POST code: 200 Unable parse text as JSON [ok]"),
            (Answer(body=b'{"a":1,'), "null", "Unable parse text as JSON"),
            (Answer(body=b'["a\0b"]'), "null", "Unable parse text as JSON"),
            (Answer(body=b"[7]\0]"), "[7]", "TRACE POST code: 200 response:["),
            (Answer(body=b""), "null", "Unable parse text as JSON []"),
            (Answer(body=deep.encode()), deep, "response:[[["),
            (packed, "[5]", "[5]"),
            (Answer(204), None, "ERROR POST failed CODE:204 BODY:[]"),
            (Answer(500), None, "ERROR POST failed CODE:500 BODY:[{"),
            (Answer(307, headers={"Location": "/api/moved/m1/x"}), "normal", "response:[{"),
            (Answer(cut=True), None, "ERROR CURL call to Server failed - "),
            (Answer(stall_s=12), "normal", "response:[{"),
        ]
        self.testbed.start_ready_daemon()
        self.testbed.cloud.answers.extend(answer for answer, _, _ in cases)
        for _ in cases:
            self.testbed.send(check_in())
        wanted = [result for _, result, _ in cases if result]
        replies = [json.dumps(reply["result"]) for reply in self.testbed.replies(len(wanted), 30)]
        self.assertEqual(["normal" if "accepted" in text else text for text in replies], wanted)
        log, at = self.testbed.log(), 0
        for _, _, record in cases:
            at = log.find(record, at + 1)
            self.assertGreater(at, 0, record)
        self.assertEqual(log.count("ERROR Curl call failed m1/x\n"), len(cases) - len(wanted))
        self.assertEqual(log.count("TRACE Server URL: [https://localhost:8443/api/m1/x]\n"), 14)

    def test_trusts_the_configured_authority_for_its_own_host_alone(self) -> None:
        self.testbed.start_ready_daemon()
        for number, certificate in enumerate(("stranger", "elsewhere"), 1):
            self.testbed.cloud.close()
            self.testbed.cloud = self.testbed.make_cloud(certificate)
            self.testbed.send(check_in())
            record = "ERROR CURL call to Server failed - SSL "
            self.assertTrue(self.testbed.logged(record, number), certificate)
            self.assertEqual(self.testbed.cloud.requests, [])

    def test_rejects_what_is_no_request_with_one_record_each(self) -> None:
        members = 'Invalid JSON expected "path" and "request" members.\n'
        cut = check_in(padding=16384)
        cases = [
            ("no json", "Failed to parse JSON no json\n"),
            (" null ", "Invalid JSON was nullValue  null \n"),
            ("[]", "Expected JSON object []\n"),
            ('{"path":"p"}', members),
            ('{"request":{}}', members),
            ("{}\0" + check_in(), members),
            ('{"path":5,"request":{}}', 'EXCEPTION: Failed to parse JSON [{"path":5,"request":{}'),
            ('{"path":"p","request":null}', 'EXCEPTION: Failed to parse JSON [{"path":"p","reque'),
            ("[" * 3000, "EXCEPTION: Failed to parse JSON [[[["),
            (cut, "Failed to parse JSON " + cut[:16384] + "\n"),
        ]
        self.testbed.start_ready_daemon()
        for datagram, _ in cases:
            self.testbed.send(datagram)
        self.testbed.send("")
        self.testbed.send(check_in(padding=16384 - len(check_in())))
        self.assertEqual(len(self.testbed.replies(1)), 1)
        records = self.testbed.log().split("Z ERROR ")[1:]
        self.assertEqual(len(records), len(cases))
        for seen, (_, wanted) in zip(records, cases):
            self.assertTrue(seen.startswith(wanted), wanted)
        counts = re.findall(r"TRACE Parse upstream message (\d+) bytes", self.testbed.log())
        self.assertEqual(counts[-2:], ["16384", "16384"])
        self.assertEqual(len(counts), len(cases) + 1, "an empty datagram is none")

    def test_leaves_a_failing_cloud_alone(self) -> None:
        record = "WARNING Circuit is broken, too many failed requests, backoff "
        failure, success = [Answer(500)], [Answer()]
        for section, answers, least_ms, most_ms in (
            ({}, failure * 9 + success + failure * 10, 4000, 6000),
            # An integer means 1, whatever its value.
            ({"breakerThreshold": 25, "breakerTime": 60000}, failure, 0, 1001),
        ):
            self.testbed.configuration["veyra"] = section
            self.testbed.cloud.requests.clear()
            self.testbed.start_ready_daemon()
            self.testbed.cloud.answers.extend(answers)
            for _ in answers:
                self.testbed.send('{"path":5,"request":{}}')  # does not count
                self.testbed.send(check_in())
            self.testbed.send('{"path":5,"request":{}}')  # types are looked at after the breaker
            self.testbed.send("no json")  # other faults before
            self.assertTrue(self.testbed.logged("ERROR Failed to parse JSON no json\n"))
            self.assertEqual(self.testbed.log().count(record), 1)
            self.assertEqual(len(self.testbed.cloud.requests), len(answers))
            backoff_ms = int(self.testbed.log().partition(record)[2].split(" ms\n")[0])
            self.assertTrue(least_ms <= backoff_ms <= most_ms, backoff_ms)

    @skipIf(SANITIZED, "sanitizers keep freed memory")
    def test_gives_back_what_a_large_answer_took(self) -> None:
        body = json.dumps([{"a": i, "b": "text", "c": [i, None]} for i in range(150000)]).encode()
        self.testbed.configuration["log"]["level"] = 30
        daemon = self.testbed.start_ready_daemon()
        self.testbed.send(check_in())
        self.testbed.replies(1)
        before = daemon.resident_kib()
        for answer in (Answer(body=body), Answer(body=body[:-2]), Answer(500, body=body)):
            self.testbed.cloud.answers.append(answer)
            self.testbed.send(check_in())
        for number in range(3):
            self.testbed.send(check_in(number=number))
        self.assertEqual(len(self.testbed.replies(6)), 6)
        self.assertTrue(eventually(lambda: daemon.resident_kib() < before + 2048, 2))
