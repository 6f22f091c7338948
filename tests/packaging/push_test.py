"""90 days that were recorded offline, on their way to real receivers from a booted host."""

import json
import pathlib
import re
import shutil
import subprocess
import urllib.parse
import urllib.request

import host
import systemd_host
import volorn_units as units
from systemd_host import run
from volorn_units import shows, systemctl

DAYS = 90
SETTINGS = pathlib.Path("/etc/volorn/push.conf")
OWN = pathlib.Path("/var/lib/volorn-push")
DATA = pathlib.Path("/var/tmp/receivers")
VICTORIA, AGENT, PROMETHEUS = (f"http://127.0.0.1:{port}" for port in (8428, 8429, 9090))
IMPORT = "/api/v1/import/prometheus"
SOON = ["[Timer]", "OnActiveSec=", "OnActiveSec=1s", "RandomizedDelaySec=0", "AccuracySec=10ms"]


def prepare():
    units.install()
    shutil.rmtree(host.STATE, ignore_errors=True)
    run(host.VOLORND)
    with host.opened() as database:
        for day in range(1, DAYS):
            database.execute(
                f"INSERT INTO snapshot SELECT id + {day}, taken_at - {DAYS - day} * 86400.0 FROM snapshot LIMIT 1"
            )
            database.execute(
                f"INSERT INTO metric SELECT snapshot_id + {day}, position, key_id, value + {day} FROM metric WHERE snapshot_id = 1"
            )
        database.execute(f"UPDATE snapshot SET taken_at = taken_at - {DAYS} * 86400.0 WHERE id = 1")
    for path in (host.STATE, *host.STATE.iterdir()):
        shutil.chown(path, "volorn", "volorn")


def fetch(url, **form):
    try:
        with urllib.request.urlopen(f"{url}?{urllib.parse.urlencode(form)}", timeout=60) as answer:
            return answer.read().decode()
    except OSError:
        return ""


def expected():
    """(gauge, milliseconds): value, by what the program itself prints."""
    text = run(str(systemd_host.BUILD / "volornctl"), "export", "--format", "prometheus")
    return {
        (g, int(at)): float(v) for g, v, at in re.findall(r"^(\w+)\{.*\} (\S+) (\d+)$", text, re.MULTILINE)
    }


def starts():
    return len([line for line in units.journal("systemd") if "Starting volorn-push.service" in line])


class PushTest(units.Test):
    def receiver(self, *command):
        DATA.mkdir(exist_ok=True)
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (process.kill(), process.wait()))

    def victoria(self):
        self.receiver(
            "victoria-metrics",
            f"-storageDataPath={DATA}/victoria",
            "-httpListenAddr=127.0.0.1:8428",
            "-retentionPeriod=1y",
            "-dedup.minScrapeInterval=1ms",
        )
        self.assertComesTrue(lambda: fetch(VICTORIA + "/health"))

    def inVictoria(self):
        fetch(VICTORIA + "/internal/force_flush")
        series = map(
            json.loads,
            fetch(VICTORIA + "/api/v1/export", **{"match[]": '{__name__=~"volorn_.*"}'}).splitlines(),
        )
        return {
            (one["metric"]["__name__"], at): value
            for one in series
            for at, value in zip(one["timestamps"], one["values"])
        }

    def inPrometheus(self):
        found = fetch(PROMETHEUS + "/api/v1/query", query='{__name__=~"volorn_.*"}[100d]')
        series = json.loads(found)["data"]["result"] if found else []
        return {
            (one["metric"]["__name__"], round(at * 1000)): float(value)
            for one in series
            for at, value in one["values"]
        }

    def assertOffline(self):
        self.assertComesTrue(lambda: shows("volorn-push.service", "ActiveState") == "inactive")
        self.assertFalse((OWN / "sent").exists())

    def testOnTheWay(self):
        self.assertComesTrue(lambda: not units.active())
        self.assertEqual(starts(), 0, "off until it is told where to")
        run("systemd-analyze", "security", "--no-pager", "--threshold=14", "volorn-push.service")
        SETTINGS.parent.mkdir()
        token = SETTINGS.parent / "token"
        token.write_text("dG9rZW4\n")
        token.chmod(0o600)
        SETTINGS.write_text(f"URL={VICTORIA}{IMPORT}\nTOKEN_FILE={token}\n")
        SETTINGS.chmod(0o600)
        with self.subTest("offline"):
            systemctl("start volorn.service")
            self.assertComesTrue(lambda: starts() == 1)
            self.assertComesTrue(lambda: shows("volorn-push.timer", "SubState") == "waiting")
            self.assertOffline()
        with self.subTest("the timer comes again each time"):
            units.DROP_INS.joinpath("volorn-push.timer.d").mkdir(parents=True)
            units.DROP_INS.joinpath("volorn-push.timer.d/test.conf").write_text("\n".join([*SOON, ""]))
            systemctl("daemon-reload")
            systemctl("restart volorn-push.timer")
            self.assertComesTrue(lambda: starts() >= 4)
        with self.subTest("VictoriaMetrics"):
            self.victoria()
            self.assertComesTrue((OWN / "sent").exists)
            self.assertComesTrue(lambda: self.inVictoria() == expected())
            self.assertEqual(len({at for gauge, at in expected() if gauge == "volorn_load1"}), DAYS)
            self.assertComesTrue(lambda: shows("volorn-push.timer", "ActiveState") == "inactive")
            self.assertNotIn("dG9rZW4", run("journalctl", "--quiet"))
        with self.subTest("Prometheus"):
            configuration = DATA / "prometheus.yml"
            configuration.write_text(json.dumps({"storage": {"tsdb": {"out_of_order_time_window": "100d"}}}))
            self.receiver(
                "prometheus",
                f"--config.file={configuration}",
                f"--storage.tsdb.path={DATA}/tsdb",
                "--storage.tsdb.retention.time=200d",
                "--web.enable-remote-write-receiver",
                "--web.listen-address=127.0.0.1:9090",
            )
            self.receiver(
                "vmagent",
                f"-remoteWrite.url={PROMETHEUS}/api/v1/write",
                "-httpListenAddr=127.0.0.1:8429",
                f"-remoteWrite.tmpDataPath={DATA}/agent",
            )
            self.assertComesTrue(lambda: fetch(PROMETHEUS + "/-/ready") and fetch(AGENT + "/health"))
            SETTINGS.write_text(f"URL={AGENT}{IMPORT}\n")
            (OWN / "cursor").unlink()
            systemctl("start volorn-push.service")
            self.assertTrue((OWN / "sent").exists())
            self.assertComesTrue(lambda: self.inPrometheus() == expected())


if __name__ == "__main__":
    systemd_host.main(prepare)
