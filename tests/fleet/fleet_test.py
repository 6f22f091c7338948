"""The export and what a fleet's engine makes of it: a real node exporter and a real Prometheus, on a network of their
own that has nothing but a loopback."""

import collections
import http.client
import json
import pathlib
import re
import subprocess
import sys
import threading
import time
import urllib.parse
import urllib.request

from prometheus_client.openmetrics import parser

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

HERE = pathlib.Path(__file__).parent
FLEET = HERE.parents[1] / "packaging/fleet"
EXPORTER = "127.0.0.1:9100"
ENGINE = "127.0.0.1:9090"
PATIENCE_SECONDS = 120
REWRITES = 1000

EXPORT = host.STATE / "volorn.prom"
TEXTFILES = host.LIB / "textfiles"

# Each gauge with what its key's number is divided by.
GAUGES = {
    "volorn_wakeup_time_of_day_seconds": ("wakeupSecsSinceMidnight", 1),
    "volorn_planned_time_of_day_seconds": ("plannedSecsSinceMidnight", 1),
    "volorn_next_time_of_day_seconds": ("nextSecsSinceMidnight", 1),
    "volorn_thermal_level": ("thermalLevel", 1),
    "volorn_battery_fully_charged_once": ("battery.fullyChargedOnce", 1),
    "volorn_battery_charge_ratio": ("battery.chargedPct100x", 10000),
    "volorn_battery_max_capacity": ("battery.maxCapacity", 1),
    "volorn_battery_plugged_in": ("battery.pluggedIn", 1),
    "volorn_battery_fully_charged": ("battery.fullyCharged", 1),
    "volorn_backlight_ratio": ("backlightLevel100x", 10000),
    "volorn_uptime_seconds": ("uptime.Secs100x", 100),
    "volorn_load1": ("uptime.load1Min100x", 100),
    "volorn_load5": ("uptime.load5Min100x", 100),
    "volorn_load15": ("uptime.load15Min100x", 100),
    "volorn_memory_available_ratio": ("jetsamLevel", 100),
}
TIME = "volorn_snapshot_timestamp_seconds"


def fetch(url):
    with urllib.request.urlopen(url, timeout=PATIENCE_SECONDS) as answer:
        return answer.read().decode()


def query(expression):
    """Prometheus's answer now, as a list of (labels, number); refused expressions raise."""
    document = json.loads(fetch(f"http://{ENGINE}/api/v1/query?" + urllib.parse.urlencode({"query": expression})))
    return [(row["metric"], float(row["value"][1])) for row in document["data"]["result"]]


def waitFor(what, condition):
    end = time.monotonic() + PATIENCE_SECONDS
    while time.monotonic() < end:
        try:
            if result := condition():
                return result
        except OSError:  # nobody listens yet
            pass
        time.sleep(0.05)
    raise AssertionError(f"{what}: not within {PATIENCE_SECONDS} s")


def export():
    subprocess.run([host.VOLORNCTL, "metrics", "--format", "openmetrics", "--output", str(EXPORT)], check=True)
    return EXPORT.read_text()


def samplesOf(text):
    """Every sample of ours in an exposition."""
    return {name: float(value) for name, value in re.findall(r"^(volorn_\w+) (\S+)$", text, re.MULTILINE)}


class FleetTest(host.Test):
    def setUp(self):
        super().setUp()
        battery = host.SYS_CLASS / "power_supply/BAT0"
        display = host.SYS_CLASS / "backlight/panel"
        for folder, attributes in ((battery, {"type": "Battery", "status": "Discharging", "charge_now": 1500,
                                              "charge_full": 1600}),
                                   (display, {"type": "raw", "brightness": 5, "max_brightness": 8})):
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

    def startExporter(self):
        self.start("prometheus-node-exporter", f"--web.listen-address={EXPORTER}", "--web.disable-exporter-metrics", "--collector.disable-defaults",
                   "--collector.textfile", f"--collector.textfile.directory={TEXTFILES}")
        waitFor("node exporter", lambda: fetch(f"http://{EXPORTER}/metrics"))

    def startEngine(self):
        configuration = host.LIB / "prometheus.yml"
        configuration.write_text(json.dumps({  # which is YAML too
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [str(FLEET / "volorn.rules.yml")],
            "scrape_configs": [{"job_name": "device", "static_configs": [{"targets": [EXPORTER]}]}]}))
        self.start("prometheus", f"--config.file={configuration}", f"--storage.tsdb.path={host.LIB}/tsdb",
                   f"--web.listen-address={ENGINE}")

    def testBothFormatsReadTheSameBytes(self):
        text = export()
        checked = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, check=False)
        self.assertEqual((checked.returncode, checked.stdout), (0, ""))
        taken_at, metrics = host.readState().snapshots[-1]
        expected = {name: metrics[key] / divisor for name, (key, divisor) in GAUGES.items()}
        families = list(parser.text_string_to_metric_families(text))
        self.assertEqual([family.name for family in families], [*GAUGES, TIME])
        for family in families:
            self.assertEqual(family.type, "gauge", family.name)
            self.assertNotEqual(family.documentation, "", family.name)
            (sample,) = family.samples
            self.assertEqual((sample.name, sample.labels, sample.timestamp), (family.name, {}, None))
            if family.name == TIME:
                self.assertAlmostEqual(sample.value, taken_at + host.REFERENCE_DATE, delta=0.001)
            else:
                self.assertEqual(sample.value, expected[family.name], family.name)
        self.assertEqual(samplesOf(text)["volorn_battery_charge_ratio"], 0.9375)

    def testNoScrapeMeetsHalfAFile(self):
        contents = []
        states = []
        for load in (100, 123456789):
            host.editState(f"UPDATE metric SET value = {load} WHERE key_id IN (SELECT id FROM metric_key WHERE "
                           f"name LIKE '{host.PREFIX}uptime.load%')")
            contents.append(export())
            states.append(host.save())
        wholes = [samplesOf(content) for content in contents]
        self.startExporter()
        faults = []
        seen = collections.Counter()
        done = threading.Event()
        self.addCleanup(done.set)  # also where a rewrite fails

        def scrape():
            text = fetch(f"http://{EXPORTER}/metrics")
            return text, "\nnode_textfile_scrape_error 0\n" in text

        def readFile():
            text = EXPORT.read_text()
            return text, text in contents

        def look(read):
            while not done.is_set():
                try:
                    text, is_good = read()
                except (OSError, http.client.HTTPException) as error:
                    text, is_good = str(error), False
                if is_good and samplesOf(text) in wholes:
                    seen[read, wholes.index(samplesOf(text))] += 1
                else:
                    faults.append(text)

        readers = [threading.Thread(target=look, args=(read,)) for read in (scrape, readFile)]
        for reader in readers:
            reader.start()
        folders = [host.LIB / name for name in ("first", "second")]
        for folder, files in zip(folders, states):
            folder.mkdir()
            for name, content in files.items():
                (folder / name).write_bytes(content)
        for i in range(REWRITES):
            subprocess.run([host.VOLORNCTL, "--state-dir", str(folders[i % 2]), "metrics", "--format", "openmetrics",
                            "--output", str(EXPORT)], check=True)
        done.set()
        for reader in readers:
            reader.join()
        self.assertEqual(faults[:1], [])
        self.assertEqual(len(seen), 4, seen)  # each saw both contents

    def testPrometheusAnswers(self):
        taken_at, metrics = host.readState().snapshots[-1]
        export()
        self.startExporter()
        self.startEngine()
        waitFor("Prometheus's first sample", lambda: query(TIME))
        ((labels, charge),) = query("volorn_battery_charge_ratio")
        self.assertEqual((labels["instance"], charge), (EXPORTER, 0.9375))
        ((_, time_taken),) = query(TIME)
        self.assertAlmostEqual(time_taken, taken_at + host.REFERENCE_DATE, delta=0.001)
        for gauge, (key, divisor) in GAUGES.items():
            ((_, value),) = query(gauge)
            self.assertEqual(value, metrics[key] / divisor, gauge)
        self.checkDashboard(silent=0, on_battery=1, low=0)
        host.age(3)
        host.editState("UPDATE metric SET value = iif(name LIKE '%pluggedIn', 1, 1999) FROM metric_key "
                       "WHERE id = key_id AND (name LIKE '%pluggedIn' OR name LIKE '%chargedPct100x')")
        export()
        waitFor("the alert", lambda: query('ALERTS{alertname="VolornDeviceSilent", alertstate="firing"}'))
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
        self.assertEqual(counted, {"Devices": 1, "Silent": silent, "Silent devices": silent, "On battery": on_battery,
                                   "Charge below a fifth": low})

    def testManualTellsOfEveryGauge(self):
        page = (HERE.parents[1] / "docs/man/volorn-keys.7").read_text()
        told = re.findall(r"^\.It gauge\n(.*)", page, re.MULTILINE)
        shown = list(GAUGES)
        shown[4:4] = ["volorn_battery_usage_seconds", "volorn_battery_standby_seconds"]  # of a query that fails here
        self.assertEqual(told, shown)

    def testRules(self):
        for arguments in (["check", "rules", str(FLEET / "volorn.rules.yml")],
                          ["test", "rules", str(HERE / "silent.test.yml")]):
            done = subprocess.run(["promtool", *arguments], text=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, check=False)
            self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    if "VOLORN_TEST_NAMESPACE" in host.os.environ:
        host.raiseLoopback()
    host.main("--net")
