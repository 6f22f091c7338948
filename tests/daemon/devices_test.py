"""What volornd makes of the devices below /sys/class, odd ones above all."""

import os
import pathlib
import resource
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

DEVICE_KEYS = host.KEYS[3:12]

SHORT = {"charged": "battery.chargedPct100x", "max": "battery.maxCapacity", "plugged": "battery.pluggedIn",
         "full": "battery.fullyCharged", "backlight": "backlightLevel100x", "thermal": "thermalLevel"}


class Odd:
    """An attribute that is no file with text in it."""

    def __init__(self, make):
        self.make = make


FOLDER = Odd(os.mkdir)
UNREADABLE = {
    "folder": FOLDER,
    "FIFO": Odd(os.mkfifo),
    "EIO": Odd(lambda path: os.symlink("/proc/self/mem", path)),
    "dangling link": Odd(lambda path: os.symlink("nowhere", path)),
    "endless": Odd(lambda path: os.symlink("/dev/zero", path)),
    "empty": "",
    "blank": "\n",
    "70,000 bytes": "1" * 70000,
    "16 MiB": "1" * (16 << 20),
    "NUL bytes": "\0" * 4096,
    "16 MiB of nothing": Odd(lambda path: (path.touch(), os.truncate(path, 16 << 20))),
    "link to itself": Odd(lambda path: os.symlink(path.name, path)),
    "beyond 64 bits": 2**64 + 1500,
}
GONE = UNREADABLE["EIO"]


def battery(status="Discharging", **attributes):
    return {"type": "Battery", "status": status, **attributes}


def energy(now, full, status="Discharging", **attributes):
    return battery(status, energy_now=now, energy_full=full, **attributes)


def charge(now, full, status="Discharging", **attributes):
    return battery(status, charge_now=now, charge_full=full, **attributes)


def charger(online, type="Mains", **attributes):
    return {"type": type, "online": online, **attributes}


PACK = energy(1500, 1600)
CHARGED = {"charged": 9375, "max": 1600}

# Name, supplies one after the other, and what differs from a machine without devices.
SUPPLIES = [
    ("none", [], {}),
    ("one pack", [PACK], CHARGED),
    ("it is present", [{**PACK, "present": 1}], CHARGED),
    ("it is not", [{**PACK, "present": 0}], {}),
    ("of the system", [{**PACK, "scope": "System"}], CHARGED),
    ("of a mouse", [energy(1, 2, "Full", scope="Device", present=1)], {}),
    ("a mouse beside the pack", [energy(1, 2, "Full", scope="Device"), PACK], CHARGED),
    ("uninterruptible supply", [{**PACK, "type": "UPS", "status": "Full"}], {}),
    ("truncated, not rounded", [charge(1, 3)], {"charged": 3333, "max": 3}),
    ("energy before charge", [{**PACK, "charge_now": 1, "charge_full": 3}], CHARGED),
    ("half an energy pair", [charge(1, 3, energy_now=7)], {"charged": 3333, "max": 3}),
    ("half a pair, and percent", [battery(energy_full=1600, capacity=43)], {"charged": 4300, "max": 100}),
    ("halves of two pairs", [battery(energy_now=1500, charge_full=1600)], {"charged": -10000}),
    ("full figure alone", [battery(energy_full=1600)], {"max": 1600}),
    ("percent", [battery(capacity=43)], {"charged": 4300, "max": 100}),
    ("0.57 is a little less in binary", [battery(capacity=57)], {"charged": 5699, "max": 100}),
    ("117 percent", [battery(capacity=117)], {"charged": 10000, "max": 100}),
    ("-5 percent", [battery(capacity=-5)], {"charged": 0, "max": 100}),
    ("pair before percent", [{**PACK, "capacity": 12}], CHARGED),
    ("above full", [energy(1700, 1600)], {"charged": 10000, "max": 1600}),
    ("below empty", [energy(-1, 1600)], {"charged": 0, "max": 1600}),
    ("two of one unit", [PACK, energy(100, 1600)], {"charged": 5000, "max": 3200}),
    ("two of the other", [charge(3, 4), charge(1, 4)], {"charged": 5000, "max": 8}),
    ("one above full does not fill the other", [energy(3, 2), energy(0, 2)], {"charged": 5000, "max": 4}),
    ("both units common to one", [{**PACK, "charge_now": 3, "charge_full": 4}, charge(1, 4)],
     {"charged": 5000, "max": 8}),
    ("mixed units", [energy(1, 2), charge(4, 4)], {"charged": 7500, "max": 100}),
    ("percents", [battery(capacity=40), battery(capacity=61)], {"charged": 5050, "max": 100}),
    ("percent and pair", [battery(capacity=40), energy(1, 2)], {"charged": 4500, "max": 100}),
    ("empty shell alone", [energy(0, 0, "Full")], {}),
    ("empty shell out of sums and states", [energy(1600, 1600, "Full"), energy(5, 0)],
     {"charged": 10000, "max": 1600, "full": 1, "plugged": 1}),
    ("empty shell's state", [energy(0, 0, "Charging"), PACK], CHARGED),
    ("charging", [{**PACK, "status": "Charging"}], {**CHARGED, "plugged": 1}),
    ("full", [{**PACK, "status": "Full"}], {**CHARGED, "plugged": 1, "full": 1}),
    ("unknown", [{**PACK, "status": "Unknown"}], CHARGED),
    ("held near full", [{**PACK, "status": "Not charging"}], {**CHARGED, "plugged": 1, "full": 1}),
    ("held at 90 percent", [battery("Not charging", capacity=90)],
     {"charged": 9000, "max": 100, "plugged": 1, "full": 1}),
    ("held below", [battery("Not charging", capacity=89)], {"charged": 8900, "max": 100, "plugged": 1}),
    ("not charging near empty", [battery("Not charging", capacity=2)],
     {"charged": 200, "max": 100, "plugged": 1}),
    ("not charging, nothing told", [battery("Not charging")], {"plugged": 1}),
    ("one full, one not", [energy(2, 2, "Full"), energy(0, 2)], {"charged": 5000, "max": 4, "plugged": 1}),
    ("both full", [energy(2, 2, "Full"), battery("Full", energy_now=2, energy_full=2)],
     {"charged": 10000, "max": 4, "plugged": 1, "full": 1}),
    ("charger alone", [charger(1)], {"plugged": 1}),
    ("charger off", [charger(0)], {}),
    ("online and discharging", [charger(1), PACK], {**CHARGED, "plugged": 1}),
    ("off and charging", [charger(0), {**PACK, "status": "Charging"}], CHARGED),
    ("off and full", [charger(0), {**PACK, "status": "Full"}], {**CHARGED, "full": 1}),
    ("second charger", [charger(0), charger(1, "USB")], {"plugged": 1}),
    ("power delivery", [charger(1, "USB_PD")], {"plugged": 1}),
    ("programmable", [charger(2, "USB_PD")], {"plugged": 1}),
    ("wireless", [charger(1, "Wireless")], {"plugged": 1}),
    ("charger of a headset", [charger(1, scope="Device")], {}),
    ("charger of a headset says nothing of the pack",
     [charger(0, scope="Device"), {**PACK, "status": "Charging"}], {**CHARGED, "plugged": 1}),
    ("unreadable charger", [charger(GONE), {**PACK, "status": "Charging"}], CHARGED),
    ("unreadable type", [{**PACK, "type": GONE}], {}),
    ("unreadable scope", [{**PACK, "scope": GONE}], CHARGED),
    ("unreadable presence", [{**PACK, "present": GONE}], CHARGED),
    ("unreadable energy", [{**PACK, "energy_now": GONE}], {"max": 1600}),
    ("unreadable full energy", [{**PACK, "energy_full": GONE}], {"charged": -10000}),
    ("unreadable energy, percent", [{**PACK, "energy_now": GONE, "capacity": 93}],
     {"charged": 9300, "max": 100}),
    ("one pack of two unreadable", [battery(energy_now=GONE, energy_full=GONE), PACK], CHARGED),
    ("all unreadable", [dict.fromkeys(battery(energy_now=0, energy_full=0), GONE)], {}),
    ("no number", [energy("many", 1600)], {"max": 1600}),
    ("number and more", [energy("15 mWh", 1600)], {"max": 1600}),
    ("number too large", [energy(10**30, 1600)], {"max": 1600}),
] + [
    (f"status: {name}", [{**PACK, "status": odd}], CHARGED) for name, odd in UNREADABLE.items()
] + [
    (f"energy: {name}", [{**PACK, "energy_now": odd}], {"max": 1600}) for name, odd in UNREADABLE.items()
]


def light(type, brightness, max_brightness, **attributes):
    return {"type": type, "brightness": brightness, "max_brightness": max_brightness, **attributes}


LIGHTS = [
    ("half", [light("raw", 50, 100)], {"backlight": 5000}),
    ("panel off", [light("raw", 50, 100, actual_brightness=0)], {"backlight": 5000}),
    ("firmware first", [light("raw", 1, 4), light("platform", 2, 4), light("firmware", 3, 4)],
     {"backlight": 7500}),
    ("platform before raw", [light("raw", 1, 4), light("platform", 2, 4)], {"backlight": 5000}),
    ("by name", [light("raw", 1, 4), light("raw", 2, 4)], {"backlight": 2500}),
    ("known kinds first", [light("odd", 1, 4), light(GONE, 1, 4), light("raw", 2, 4)], {"backlight": 5000}),
    ("unreadable setting", [light("raw", GONE, 100)], {"backlight": 0}),
    ("unreadable maximum", [light("raw", 7, GONE)], {"backlight": 2**31 - 1}),
    ("maximum 0", [light("raw", 0, 0)], {"backlight": 0}),
    ("the chief one unreadable", [light("firmware", GONE, GONE), light("raw", 50, 100)], {"backlight": 0}),
]


def zone(temp, *trips, mode="enabled"):
    points = {}
    for number, (type, trip_temp) in enumerate(trips):
        points |= {f"trip_point_{number}_type": type, f"trip_point_{number}_temp": trip_temp}
    return {"type": "acpitz", "mode": mode, "temp": temp, **points}


TRIPS = [("active", 50000), ("passive", 60000), ("hot", 70000), ("critical", 80000)]
ZONES = [
    ("cold", [zone(49999, *TRIPS)], {}),
    ("active", [zone(50000, *TRIPS)], {"thermal": 1}),
    ("passive", [zone(69999, *TRIPS)], {"thermal": 2}),
    ("hot", [zone(70000, *TRIPS)], {"thermal": 3}),
    ("critical", [zone(80000, *TRIPS)], {"thermal": 4}),
    ("in any order", [zone(80000, *reversed(TRIPS))], {"thermal": 4}),
    ("the worst zone", [zone(50000, *TRIPS), zone(70000, *TRIPS), zone(0, *TRIPS)], {"thermal": 3}),
    ("switched off", [zone(80000, *TRIPS, mode="disabled"), zone(50000, *TRIPS)], {"thermal": 1}),
    ("no mode", [zone(80000, *TRIPS, mode=GONE)], {"thermal": 4}),
    ("hotter than can be", [zone(150001, *TRIPS)], {}),
    ("colder than can be", [zone(-40001, ("critical", 1))], {}),
    ("meaningless trips", [zone(149000, ("critical", 0), ("hot", -273000), ("critical", 150001))], {}),
    ("as hot as can be", [zone(150000, ("critical", 150000))], {"thermal": 4}),
    ("unknown trip", [zone(80000, ("odd", 1), ("passive", 2))], {"thermal": 2}),
    ("unreadable trip", [zone(80000, ("critical", GONE), (GONE, 2), ("passive", 2))], {"thermal": 2}),
    ("no trips", [zone(80000)], {}),
    ("unreadable sensor", [zone(GONE, *TRIPS), zone(50000, *TRIPS)], {"thermal": 1}),
]

CLASSES = [("power_supply", "BAT", SUPPLIES), ("backlight", "panel", LIGHTS), ("thermal", "thermal_zone", ZONES)]


# So many bytes of memory are plenty for a run; the sanitizers need more.
MEMORY_BYTES = 64 << 20
SANITIZED = b"__ubsan" in pathlib.Path(host.VOLORND).read_bytes()


def boundMemory():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))


def makeDevice(folder, attributes):
    folder.mkdir(parents=True)
    for name, content in attributes.items():
        if isinstance(content, Odd):
            content.make(folder / name)
        else:
            (folder / name).write_text("" if content == "" else f"{content}\n")


class DevicesTest(host.Test):
    def runOn(self, what, differences):
        expected = {**host.WITHOUT_DEVICES, **{SHORT[name]: value for name, value in differences.items()}}
        with self.subTest(what):
            host.restore(None)
            self.assertEqual(self.runDaemon(preexec_fn=None if SANITIZED else boundMemory), host.NEW)
            metrics = host.readState().metrics()
            self.assertEqual({key: metrics[key] for key in DEVICE_KEYS if key in metrics}, expected)
            self.assertEqual(len(metrics) - len(expected), 7, "other keys")
        for entry in host.SYS_CLASS.iterdir():
            shutil.rmtree(entry)

    def testReadings(self):
        for class_name, device, cases in CLASSES:
            for name, devices, differences in cases:
                for number, attributes in enumerate(devices):
                    makeDevice(host.SYS_CLASS / class_name / f"{device}{number}", attributes)
                self.runOn(f"{class_name}: {name}", differences)

    def testEntriesOfAClass(self):
        # Entries are links to the device on most kernels; what is no device is passed over.
        for class_name, device, attributes, differences in (
            ("power_supply", "CMB0", PACK, CHARGED),
            ("backlight", "intel", light("raw", 50, 100), {"backlight": 5000}),
            ("thermal", "thermal_zone7", zone(50000, *TRIPS), {"thermal": 1}),
        ):
            folder = host.SYS_CLASS / class_name
            makeDevice(host.SYS_CLASS / "devices" / device, attributes)
            folder.mkdir()
            (folder / device).symlink_to(host.SYS_CLASS / "devices" / device)
            if class_name == "thermal":
                makeDevice(folder / "cooling_device0", zone(80000, *TRIPS))
            if class_name == "power_supply":
                (folder / "file").write_text("Battery\n")
                (folder / "gone").symlink_to("nowhere")
            self.runOn(f"{class_name}: link", differences)

    def testFoldersThatHoldThemselves(self):
        """Links that lead back: to the class, to the device, and a class that is a link to itself."""
        for class_name, device, attributes, differences in (
            ("power_supply", "BAT", PACK, CHARGED),
            ("backlight", "panel", light("raw", 50, 100), {"backlight": 5000}),
            ("thermal", "thermal_zone", zone(50000, *TRIPS), {"thermal": 1}),
        ):
            folder = host.SYS_CLASS / class_name
            makeDevice(folder / f"{device}2", attributes)
            (folder / f"{device}2" / "device").symlink_to("..")
            (folder / f"{device}0").symlink_to(f"{device}0")
            (folder / f"{device}1").symlink_to(".")
            self.runOn(f"{class_name}: entries that loop", differences)
        (host.SYS_CLASS / "backlight").symlink_to("backlight")
        makeDevice(host.SYS_CLASS / "power_supply" / "BAT0", PACK)
        with self.subTest("a class that is a link to itself"):
            host.restore(None)
            self.assertEqual(self.runDaemon(), host.NEW)
            metrics = host.readState().metrics()
            self.assertEqual((metrics["battery.chargedPct100x"], metrics["backlightLevel100x"]), (9375, 0))


if __name__ == "__main__":
    host.main()
