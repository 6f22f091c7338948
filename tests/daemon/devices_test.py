"""What volornd makes of devices below a /sys/class that is mounted, odd ones above all."""

import os
import pathlib
import resource
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

# Attributes that are no file with a value in it; what is called makes one at its path.
ODD = {
    "folder": os.mkdir,
    "FIFO": os.mkfifo,
    "EIO": lambda path: os.symlink("/proc/self/mem", path),
    "dangling link": lambda path: os.symlink("nowhere", path),
    "endless": lambda path: os.symlink("/dev/zero", path),
    "blank": "",
    "70,000 bytes": "1" * 70000,
    "16 MiB": "1" * (16 << 20),
    "16 MiB of nothing": lambda path: (path.touch(), os.truncate(path, 16 << 20)),
    "link to itself": lambda path: os.symlink(path.name, path),
}

PACK = ("power_supply", {"type": "Battery", "status": "Full", "energy_now": 1500, "energy_full": 1600})
PANEL = ("backlight", {"type": "raw", "brightness": 50, "max_brightness": 100})
ZONE = (
    "thermal",
    {"mode": "enabled", "temp": 50000, "trip_point_0_temp": 40000, "trip_point_0_type": "active"},
)
READ = {
    "thermalLevel": 1,
    "battery.chargedPct100x": 9375,
    "battery.maxCapacity": 1600,
    "battery.pluggedIn": 1,
    "battery.fullyCharged": 1,
    "backlightLevel100x": 5000,
}

# So many bytes of memory are plenty for a run; the sanitizers need more.
MEMORY_BYTES = 64 << 20
SANITIZED = b"__ubsan" in pathlib.Path(host.VOLORND).read_bytes()


def boundMemory():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))


def makeDevice(name, class_name, attributes):
    folder = host.SYS_CLASS / class_name / name
    folder.mkdir(parents=True)
    for attribute, content in attributes.items():
        if callable(content):
            content(folder / attribute)
        else:
            (folder / attribute).write_text(f"{content}\n")
    return folder


class DevicesTest(host.Test):
    def runOn(self, what, readings):
        expected = {**host.WITHOUT_DEVICES, **readings}
        with self.subTest(what):
            host.restore(None)
            self.assertEqual(self.runDaemon(preexec_fn=None if SANITIZED else boundMemory), host.NEW)
            metrics = host.readState().metrics()
            self.assertEqual({key: metrics[key] for key in host.KEYS[3:12] if key in metrics}, expected)
            self.assertEqual(len(metrics) - len(expected), 7, "other keys")
        for entry in host.SYS_CLASS.iterdir():
            entry.unlink() if entry.is_symlink() else shutil.rmtree(entry)

    def testOddAttributes(self):
        for name, odd in ODD.items():
            for class_name, attributes in (PACK, PANEL, ZONE):
                makeDevice("thermal_zone0", class_name, dict.fromkeys(attributes, odd))
            makeDevice("BAT1", "power_supply", {**PACK[1], "status": odd, "energy_now": odd})
            self.runOn(name, {"battery.maxCapacity": 1600})

    def testEntriesThatAreLinks(self):
        """So they are on most kernels. What leads nowhere, to itself or back to its class is passed over."""
        for class_name, attributes in (PACK, PANEL, ZONE):
            device = makeDevice("device", "devices/" + class_name, attributes)
            (device / "device").symlink_to("..")
            folder = host.SYS_CLASS / class_name
            folder.mkdir()
            (folder / "thermal_zone3").symlink_to(device)
            (folder / "thermal_zone0").symlink_to("thermal_zone0")
            (folder / "thermal_zone1").symlink_to(".")
            (folder / "thermal_zone2").symlink_to("nowhere")
            (folder / "thermal_zone4").write_text("Battery\n")
        self.runOn("links", READ)

    def testClassThatIsALinkToItself(self):
        for class_name in ("backlight", "thermal"):
            (host.SYS_CLASS / class_name).symlink_to(class_name)
        makeDevice("BAT0", *PACK)
        self.runOn("loop", {**READ, "backlightLevel100x": 0, "thermalLevel": 0})


if __name__ == "__main__":
    host.main()
