"""The export and what a fleet's engine makes of it: a real node exporter and a real Prometheus, on a network of their
own that has nothing but a loopback."""

import json
import os
import pathlib
import re
import subprocess
import urllib.parse
import urllib.request

from prometheus_client.openmetrics import parser

import host

HERE = pathlib.Path(__file__).parent
FLEET = HERE.parents[1] / "packaging/fleet"
EXPORTER = "127.0.0.1:9100"
ENGINE = "127.0.0.1:9090"

EXPORT = host.STATE / "volorn.prom"
TEXTFILES = host.LIB / "textfiles"

PAGE = (HERE.parents[1] / "docs/man/volorn-keys.7").read_text()
# Those of a query that fails here are left out.
GAUGES = [
    name
    for name in re.findall(r"^\.It gauge\n(.*)", PAGE, re.MULTILINE)
    if not re.match(r"volorn_battery_(usage|standby|fully_charged_once)", name)
]
TIME = "volorn_snapshot_timestamp_seconds"


def fetch(url):
    """Empty as long as nobody listens yet."""
    try:
        with urllib.request.urlopen(url, timeout=120) as answer:
            return answer.read().decode()
    except OSError:
        return ""


def query(expression):
    """Prometheus's answer now, as a list of (labels, number)."""
    found = fetch(f"http://{ENGINE}/api/v1/query?" + urllib.parse.urlencode({"query": expression}))
    rows = json.loads(found)["data"]["result"] if found else []
    return [(row["metric"], float(row["value"][1])) for row in rows]


def export():
    status = host.run(host.VOLORNCTL, "metrics", "--format", "openmetrics", "--output", str(EXPORT))
    assert status == (0, "", ""), status
    return EXPORT.read_text()


class FleetTest(host.Test):
    def setUp(self):
        super().setUp()
        battery = host.SYS_CLASS / "power_supply/BAT0"
        display = host.SYS_CLASS / "backlight/panel"
        zone = host.SYS_CLASS / "thermal/thermal_zone0"
        for folder, attributes in (
            (battery, {"type": "Battery", "status": "Discharging", "charge_now": 1500, "charge_full": 1600}),
            (display, {"type": "raw", "brightness": 5, "max_brightness": 8}),
            (zone, {"temp": 70000, "trip_point_0_temp": 60000, "trip_point_0_type": "passive"}),
        ):
            folder.mkdir(parents=True)
            for name, value in attributes.items():
                (folder / name).write_text(f"{value}\n")
        self.runDaemon()
        host.age(2)
        self.runDaemon()
        # As the package links it.
        TEXTFILES.mkdir()
        (TEXTFILES / "volorn.prom").symlink_to(EXPORT)

    def start(self, *command):
        log = open(host.LIB / "log", "ab")
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.addCleanup(lambda: (process.kill(), process.wait(), log.close()))

    def startBoth(self):
        self.start(
            "prometheus-node-exporter",
            f"--web.listen-address={EXPORTER}",
            "--web.disable-exporter-metrics",
            "--collector.disable-defaults",
            "--collector.textfile",
            f"--collector.textfile.directory={TEXTFILES}",
        )
        self.assertTrue(host.waitFor(lambda: fetch(f"http://{EXPORTER}/metrics")))
        scraped = {"job_name": "device", "static_configs": [{"targets": [EXPORTER]}]}
        settings = {
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [str(FLEET / "volorn.rules.yml")],
            "scrape_configs": [scraped],
        }
        configuration = host.LIB / "prometheus.yml"
        configuration.write_text(json.dumps(settings))  # which is YAML too
        self.start(
            "prometheus",
            f"--config.file={configuration}",
            f"--storage.tsdb.path={host.LIB}/tsdb",
            f"--web.listen-address={ENGINE}",
        )

    def testBothFormatsReadTheSameBytes(self):
        text = export()
        self.assertEqual(host.run("promtool", "check", "metrics", stdin=None, input=text), (0, "", ""))
        families = list(parser.text_string_to_metric_families(text))
        self.assertEqual([family.name for family in families], [*GAUGES, TIME], "as the manual tells")
        for family in families:
            (sample,) = family.samples
            self.assertEqual((family.type, sample.name, sample.labels), ("gauge", family.name, {}))
            self.assertEqual((sample.timestamp, family.documentation == ""), (None, False), family.name)

    def testPrometheusAnswers(self):
        taken_at = host.readState().snapshots[-1][0]
        export()
        self.startBoth()
        ((_, time_taken),) = host.waitFor(lambda: query(TIME))
        self.assertAlmostEqual(time_taken, taken_at + host.REFERENCE_DATE, delta=0.001)
        ((labels, charge),) = query("volorn_battery_charge_ratio")
        self.assertEqual((labels["instance"], charge), (EXPORTER, 0.9375))
        self.assertEqual({gauge for gauge in GAUGES if query(gauge)}, set(GAUGES))
        self.checkDashboard(silent=0, on_battery=1, low=0)
        host.age(3)
        host.editState(
            "UPDATE metric SET value = iif(name LIKE '%pluggedIn', 1, 1999) FROM metric_key "
            "WHERE id = key_id AND (name LIKE '%pluggedIn' OR name LIKE '%chargedPct100x')"
        )
        export()
        firing = 'ALERTS{alertname="VolornDeviceSilent", alertstate="firing"}'
        self.assertTrue(host.waitFor(lambda: query(firing)))
        self.checkDashboard(silent=1, on_battery=0, low=1)

    def checkDashboard(self, silent, on_battery, low):
        """Every panel's expression gives one row; those that count give this number, and tables so many rows."""
        dashboard = json.loads((FLEET / "volorn.dashboard.json").read_text())
        counted = {}
        for panel in dashboard["panels"]:
            (target,) = panel["targets"]
            rows = query(target["expr"].replace("$device", ".*"))
            if panel["type"] == "table":
                counted[panel["title"]] = len(rows)
                continue
            self.assertEqual(len(rows), 1, panel["title"])
            if panel["type"] == "stat":
                counted[panel["title"]] = rows[0][1]
        expected = {"Devices": 1, "Silent": silent, "Silent devices": silent}
        self.assertEqual(counted, {**expected, "On battery": on_battery, "Charge below a fifth": low})

    def testRules(self):
        for command in (f"check rules {FLEET}/volorn.rules.yml", f"test rules {HERE}/silent.test.yml"):
            status, output, errors = host.run("promtool", *command.split())
            self.assertEqual(status, 0, output + errors)


if __name__ == "__main__":
    if "VOLORN_TEST_NAMESPACE" in os.environ:
        host.raiseLoopback()
    host.main("--net")
