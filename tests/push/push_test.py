"""volorn-push before a receiver that answers as a case tells it to, on a network of its own."""

import http.server
import json
import os
import pathlib
import re
import shutil
import subprocess
import threading
import time
import urllib.request

import host

ETC, OWN, WORK = (host.LIB / name for name in ("etc", "own", "work"))
SENT = OWN / "sent"
PUSH = host.LIB / "volorn-push"
# Each so many of the calls that a killed push is killed at.
STEP = int(os.environ.get("VOLORN_PUSH_STEP", "40"))
DEVICES = int(os.environ.get("VOLORN_PUSH_DEVICES", "20"))
OTLP = os.environ.get("VOLORN_OTLP")  # OpenTelemetry's own definitions
VICTORIA = "http://127.0.0.1:8428"
TOKEN = "dG9rZW4"
LATER = {"Retry-After": "3600"}
SAMPLE = re.compile(r'(\w+)\{instance="([^"]*)",host_id="\w{32}"(?:,\w+="[^"]*")*\} (\S+) (\d+)\n')


class Receiver(http.server.BaseHTTPRequestHandler):
    """Gives the answers that are left, and 204 then: a status with headers, bytes, or what a function of the body
    gives."""

    answers, requests, kept = [], [], {}

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        self.requests.append((dict(self.headers), body))
        answer = self.answers.pop(0) if self.answers else 204
        answer = answer(body) if callable(answer) else answer
        if isinstance(answer, bytes):
            self.wfile.write(answer)
            return
        status, headers = answer if isinstance(answer, tuple) else (answer, {})
        if status == 204:
            self.kept.update({(gauge, int(at)): float(value) for gauge, _, value, at in SAMPLE.findall(body)})
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.end_headers()

    def log_message(self, *_):
        pass


def slow(_):
    time.sleep(4)
    return 204


def samples():
    """What the state file has for a receiver, by the gauge of every machine."""
    times = [taken + host.REFERENCE_DATE for taken, _ in host.readState().snapshots]
    return {("volorn_snapshot_timestamp_seconds", int(at * 1000)): round(at, 3) for at in times}


def received():
    return {key: value for key, value in Receiver.kept.items() if key[0].endswith("timestamp_seconds")}


class PushTest(host.Test):
    def setUp(self):
        super().setUp()
        for folder in (ETC, OWN, WORK):
            folder.mkdir()
        text = (host.PROGRAMS / "packaging/volorn-push").read_text()
        for old, new in (
            ("/usr/bin/volornctl", host.VOLORNCTL),
            ("/etc/volorn", str(ETC)),
            ("--max-time 300", "--max-time 2"),
        ):
            self.assertIn(old, text)
            text = text.replace(old, new)
        PUSH.write_text(text)
        for _ in range(6):
            self.runDaemon()
            host.age(2)
        self.days = host.save()
        Receiver.answers.clear()
        Receiver.kept.clear()
        self.listen()

    def listen(self):
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Receiver)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.addCleanup(lambda: (self.server.shutdown(), self.server.server_close()))
        self.set("FORMAT=prometheus")

    def set(self, *lines):
        url = f"URL=http://127.0.0.1:{self.server.server_port}/write"
        (ETC / "push.conf").write_text("\n".join([url, *lines, ""]))

    def command(self):
        return ["sh", str(PUSH)]

    def environment(self):
        return {"PATH": os.environ["PATH"], "STATE_DIRECTORY": str(OWN), "RUNTIME_DIRECTORY": str(WORK)}

    def push(self, status=0):
        """The number of requests that it made, and what it told."""
        Receiver.requests.clear()
        ended, output, errors = host.run(*self.command(), env=self.environment())
        self.assertEqual((ended, output), (status, ""), errors)
        return len(Receiver.requests), errors

    def anew(self):
        shutil.rmtree(OWN)
        OWN.mkdir()
        Receiver.kept.clear()
        host.restore(self.days)

    def assertAllArrive(self):
        self.push()
        self.assertEqual(received(), samples())
        self.assertEqual(self.push()[0], 0, "what is there already is not sent again")
        self.assertTrue(SENT.exists())

    def testEachAnswer(self):
        """The number of requests, what the push ends with, and whether the next one asks at once."""
        most = 1500
        for what, answers, requests, status, asks_again in (
            ("taken", [], 1, 0, True),
            ("unavailable", [503], 1, 0, True),
            ("later", [(429, LATER)], 1, 0, False),
            ("later by a date", [(503, {"Retry-After": "Fri, 01 Jan 2100 00:00:00 GMT"})], 1, 0, False),
            ("elsewhere", [(302, {"Location": "/"})], 1, 0, True),
            ("no HTTP", [b"hello\n"], 1, 0, True),
            ("half an answer", [b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"], 1, 0, True),
            ("hung up on", [b""], 1, 0, True),
            ("slow", [slow], 1, 0, True),
            ("refused", [401], 1, 1, False),
            ("forbidden", [403], 1, 1, False),
            ("not there", [404], 1, 1, False),
            ("too long", [lambda body: 413 if len(body) > most else 204] * 30, None, 0, True),
            ("each too long", [413] * 30, None, 1, False),
        ):
            with self.subTest(what):
                self.anew()
                Receiver.answers[:] = answers
                made, told = self.push(status)
                self.assertEqual(made, requests or made, told)
                self.assertEqual(SENT.exists(), what in ("taken", "too long"))
                Receiver.answers.clear()
                if not asks_again:
                    self.assertEqual(self.push(status)[0], 0)
                    (OWN / "until").unlink(missing_ok=True)
                    time.sleep(0.02)  # of a clock tick
                    self.set("FORMAT=prometheus")
                self.assertAllArrive()

    def testSenselessSnapshotIsLeftOut(self):
        at = sorted(samples())[2][1]
        Receiver.answers[:] = [lambda body: 400 if f" {at}\n" in body else 204] * 50
        _, told = self.push()
        self.assertRegex(told, r"\Avolorn-push: answer 400: .* the snapshot \w{32}:3\n\Z")
        self.assertEqual(received(), {key: value for key, value in samples().items() if key[1] != at})
        self.assertEqual(self.push()[0], 0)

    def testKilledAtEachCall(self):
        host.run(*host.traced(self.command()), env=self.environment())
        calls = [call for call in host.tracedCalls() if call[0] not in ("execve", "exit_group", "vfork")]
        self.assertGreater(len(calls), 500)
        for call in calls[::STEP]:
            with self.subTest(call):
                self.anew()
                rule = f"inject={call[0]}:signal=SIGKILL:when={call[1]}"
                host.run(*host.traced(self.command(), rule), env=self.environment())
                self.assertEqual(received().items() - samples().items(), set(), "nothing invented")
                self.assertAllArrive()

    def testFullDisk(self):
        with host.mounted("-t", "tmpfs", "-o", "size=16k", "small", str(OWN)):
            with open(OWN / "filler", "wb", buffering=0) as filler:
                while filler.tell() < 1 << 20:
                    try:
                        filler.write(bytes(1024))
                    except OSError:
                        break
            self.assertEqual(self.push(1)[0], 0)
            (OWN / "filler").unlink()
            self.assertAllArrive()

    def testFilesThatWereSetAside(self):
        self.push()
        sent = samples()
        self.runDaemon()
        left = {**samples()}
        for day in (1, 2):
            os.rename(host.FILE, host.STATE / f"volorn.db.damaged-2026010{day}T000000Z")
            self.runDaemon()
            left.update(samples())
        (host.STATE / "volorn.db.damaged-20260103T000000Z").write_bytes(b"spoilt" * 999)
        self.assertEqual(self.push()[0], 1)
        self.assertEqual(received(), left)
        times = [
            int(at) for gauge, _, _, at in SAMPLE.findall(Receiver.requests[0][1]) if "timestamp" in gauge
        ]
        self.assertEqual(times, sorted(at for _, at in left.keys() - sent.keys()))
        self.assertEqual(self.push()[0], 0)
        host.restore(self.days)
        self.runDaemon()
        self.push()
        self.assertLessEqual(samples().items(), received().items(), "a copy from before, put in its place")

    def testSecretsAndOtlp(self):
        (ETC / "token").write_text(TOKEN + "\n")
        self.set("FORMAT=otlp", f"TOKEN_FILE={ETC}/token", "LABELS='instance=laptop-17 site=north'")
        Receiver.requests.clear()
        traced = host.traced(self.command(), "trace=execve", "verbose=execve")
        traced[1:1] = ["-s", "10000", "-v"]
        self.assertEqual(host.run(*traced, env=self.environment())[0], 0)
        self.assertNotIn(TOKEN, host.TRACE.read_text())
        ((headers, body),) = Receiver.requests
        self.assertEqual(headers["Authorization"], f"Bearer {TOKEN}")
        self.assertEqual(headers["Content-Type"], "application/json")
        (of_resource,) = json.loads(body)["resourceMetrics"]
        attributes = {a["key"]: a["value"]["stringValue"] for a in of_resource["resource"]["attributes"]}
        app = "--app-specific=dedb6b7b-05e0-4158-994d-715c48257153"
        self.assertEqual(attributes["host.id"] + "\n", host.run("systemd-id128", "machine-id", app)[1])
        named = [attributes[key] for key in ("service.name", "service.instance.id", "os.type", "site")]
        self.assertEqual(named, ["volorn", "laptop-17", "linux", "north"])
        (scope,) = of_resource["scopeMetrics"]
        points = {metric["name"]: metric["gauge"]["dataPoints"] for metric in scope["metrics"]}
        times = points["volorn_snapshot_timestamp_seconds"]
        found = {int(point["timeUnixNano"]) // 10**6: point["asDouble"] for point in times}
        self.assertEqual(found, {at: value for (_, at), value in samples().items()})
        if OTLP:
            check = ("node", str(pathlib.Path(__file__).with_name("otlp.js")), OTLP)
            self.assertEqual(host.run(*check, stdin=None, input=body), (0, "", ""))

    def testManyDevicesAtOnce(self):
        words = ("-dedup.minScrapeInterval=1ms", "-retentionPeriod=1y", f"-storageDataPath={host.LIB}/data")
        log = open(host.LIB / "log", "w", encoding="utf-8")
        victoria = subprocess.Popen(
            ["victoria-metrics", "-httpListenAddr=127.0.0.1:8428", *words], stderr=log, stdout=log
        )
        self.addCleanup(lambda: (victoria.kill(), victoria.wait(), log.close()))

        def fetch(path):
            try:
                return urllib.request.urlopen(VICTORIA + path, timeout=60).read().decode()
            except OSError:
                return ""

        self.assertTrue(host.waitFor(lambda: fetch("/health")))
        PUSH.write_text(PUSH.read_text().replace("--max-time 2", "--max-time 300"))
        environments = []
        for number in range(DEVICES):
            home = host.LIB / f"device-{number}"
            (home / "work").mkdir(parents=True)
            settings = f"URL={VICTORIA}/api/v1/import/prometheus\nLABELS=instance=device-{number}\n"
            (home / "volorn_push.conf").write_text(settings)
            own = {"STATE_DIRECTORY": str(home / "own"), "RUNTIME_DIRECTORY": str(home / "work")}
            environments.append({**self.environment(), **own, "CREDENTIALS_DIRECTORY": str(home)})
        began = time.monotonic()
        pushes = [subprocess.Popen(self.command(), env=environment) for environment in environments]
        self.assertEqual([push.wait() for push in pushes], [0] * DEVICES)
        print(f"{DEVICES / (time.monotonic() - began):.0f} devices a second")
        fetch("/internal/force_flush")
        series = fetch("/api/v1/export?match[]=volorn_snapshot_timestamp_seconds").splitlines()
        found = {json.loads(one)["metric"]["instance"]: json.loads(one)["timestamps"] for one in series}
        times = sorted(at for _, at in samples())
        self.assertEqual(found, {f"device-{number}": times for number in range(DEVICES)})


if __name__ == "__main__":
    if "VOLORN_TEST_NAMESPACE" in os.environ:
        host.raiseLoopback()
    host.main("--net")
