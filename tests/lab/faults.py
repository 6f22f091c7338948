#!/usr/bin/python3
"""Builds a package with faults in it, each of which sleeps until the file of its name stands in /etc/volorn-fault.

    tests/lab/faults.py FOLDER PACKAGE"""

import pathlib
import shutil
import subprocess
import sys

HEADER = """#pragma once
#include <unistd.h>
#include <string>
inline bool faulty(const char* name) { return access((std::string("/etc/volorn-fault/") + name).c_str(), F_OK) == 0; }
"""

# name: (file, text, what stands there instead)
FAULTS = {
    "running": (
        "waketide/arm.cc",
        "  return next.value_or(",
        '  if (faulty("running") && next) {\n'
        "    return Date::fromSecondsSince1970(next->secondsSince1970() + 60.0);\n  }\n  return next.value_or(",
    ),
    "battery": (
        "platform/linux/devices/power_supply.cc",
        "    sum.now += figure->now;",
        '    if (faulty("battery") && pack == packs.front()) sum.full += figure->full;\n    sum.now += figure->now;',
    ),
    "usage": (
        "platform/linux/usage_books.cc",
        "    sums.usage_ns += awake_ns;",
        '    sums.usage_ns += awake_ns + (faulty("usage") ? asleep_ns : 0);',
    ),
    "thermal": (
        "platform/linux/devices/thermal_zone.cc",
        "zone.temp_millicelsius >= trip.temp_millicelsius;",
        'zone.temp_millicelsius >= trip.temp_millicelsius + (faulty("thermal") ? 10000 : 0);',
    ),
    "identifiers": (
        "platform/linux/kernel/build_ids.cc",
        "  const BuildId id = readBuildId(opened.file.get()).value_or(BuildId{});",
        '  const BuildId id = faulty("identifiers") ? BuildId{1} : readBuildId(opened.file.get()).value_or(BuildId{});',
    ),
    "days": (
        "daemon/voLornController.cc",
        "static_cast<std::uint32_t>(offset) + kDay);",
        'static_cast<std::uint32_t>(offset) + kDay * (faulty("days") ? 2 : 1));',
    ),
}


def main():
    folder, package = map(pathlib.Path, sys.argv[1:])
    names = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True, text=True).stdout
    contents = {
        name: pathlib.Path(name).read_bytes() for name in names.split("\0") if pathlib.Path(name).is_file()
    }
    for file, text, instead in FAULTS.values():
        assert contents[file].count(text.encode()) == 1, f"{file}: {text}"
        contents[file] = contents[file].replace(text.encode(), instead.encode())
        if file.endswith(".cc"):
            contents[file] = b'#include "fault.h"\n' + contents[file]
    contents["fault.h"] = HEADER.encode()
    for name, content in contents.items():
        path = folder / name
        if path.is_file() and path.read_bytes() == content:
            continue  # so that it is not built again
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        path.chmod(pathlib.Path(name).stat().st_mode if name in names else 0o644)
    subprocess.run(["scripts/package"], cwd=folder, check=True)
    (made,) = (folder / "build").glob("volorn_*_amd64.deb")
    if not package.exists() or package.read_bytes() != made.read_bytes():
        shutil.copy(made, package)


main()
