"""The export, and what the rules and the dashboard make of it, by Prometheus's own promtool."""

import json
import pathlib
import re

from prometheus_client.openmetrics import parser

import host

HERE = pathlib.Path(__file__).parent
FLEET = HERE.parents[1] / "packaging/fleet"
PAGE = (HERE.parents[1] / "docs/man/volorn-keys.7").read_text()
# Those of a query that fails here are left out.
GAUGES = [
    name
    for name in re.findall(r"^\.It gauge\n(.*)", PAGE, re.MULTILINE)
    if not re.match(r"volorn_battery_(usage|standby|fully_charged_once)", name)
]
EXPORT = host.STATE / "volorn.prom"
TIME = "volorn_snapshot_timestamp_seconds"


class FleetTest(host.Test):
    def setUp(self):
        super().setUp()
        battery = host.SYS_CLASS / "power_supply/BAT0"
        display = host.SYS_CLASS / "backlight/panel"
        zone = host.SYS_CLASS / "thermal/thermal_zone0"
        for folder, attributes in (
            (battery, {"type": "Battery", "status": "Discharging", "charge_now": 300, "charge_full": 1600}),
            (display, {"type": "raw", "brightness": 5, "max_brightness": 8}),
            (zone, {"temp": 70000, "trip_point_0_temp": 60000, "trip_point_0_type": "passive"}),
        ):
            folder.mkdir(parents=True)
            for name, value in attributes.items():
                (folder / name).write_text(f"{value}\n")
        self.runDaemon()
        host.age(2)
        self.runDaemon()
        status = host.run(host.VOLORNCTL, "metrics", "--format", "openmetrics", "--output", str(EXPORT))
        self.assertEqual(status, (0, "", ""))

    def promtool(self, command, **options):
        status, output, errors = host.run("promtool", *command.split(), **options)
        self.assertEqual((status, errors), (0, ""), output)

    def testBothFormatsReadTheSameBytes(self):
        text = EXPORT.read_text()
        self.promtool("check metrics", stdin=None, input=text)
        families = list(parser.text_string_to_metric_families(text))
        self.assertEqual([family.name for family in families], [*GAUGES, TIME], "as the manual tells")
        for family in families:
            (sample,) = family.samples
            self.assertEqual((family.type, sample.name, sample.labels), ("gauge", family.name, {}))
            self.assertEqual((sample.timestamp, family.documentation == ""), (None, False), family.name)

    def testRules(self):
        self.promtool(f"check rules {FLEET}/volorn.rules.yml")
        self.promtool(f"test rules {HERE}/silent.test.yml")

    def testDashboard(self):
        """Of this device, which has taken a snapshot in 1970, and of another."""
        ours = re.findall(r"^(volorn_\w+) (.+)", EXPORT.read_text(), re.MULTILINE)
        others = [(TIME, "0"), ("volorn_battery_plugged_in", "1"), ("volorn_battery_charge_ratio", "0.2")]
        series = [
            {"series": f"{name}{{instance='{instance}'}}", "values": f"{0 if name == TIME else value}x60"}
            for instance, gauges in (("ours", ours), ("other", others))
            for name, value in gauges
        ]
        checks = []
        for panel in json.loads((FLEET / "volorn.dashboard.json").read_text())["panels"]:
            (target,) = panel["targets"]
            expression = target["expr"].replace("$device", "ours")
            silent = panel["title"].startswith("Silent")
            for hours in (49, 50):
                number = (2 if hours == 50 else 0) if silent else 2 if panel["title"] == "Devices" else 1
                is_number = panel["type"] == "stat"
                samples = [{"labels": "{}", "value": number}] if number or is_number else []
                counted = expression if is_number else f"count({expression})"
                checks.append({"expr": counted, "eval_time": f"{hours}h", "exp_samples": samples})
        tests = {"tests": [{"interval": "1h", "input_series": series, "promql_expr_test": checks}]}
        file = host.LIB / "dashboard.test.yml"
        file.write_text(json.dumps(tests))  # which is YAML too
        self.promtool(f"test rules {file}")


if __name__ == "__main__":
    host.main()
