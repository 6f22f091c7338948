#!/usr/bin/python3
"""What a record costs beside that of `atop`: bytes and processor time a sample, at the same time on the same machine, at an
interval of one second, with so many processes of which some work a little.

    bench/record.py FOLDER_OF_PROGRAMS [--samples N] [--processes N] [--working PERCENT] [--atop FILE]"""
import argparse
import os
import subprocess
import tempfile
import time


def crowd(count, percent):
    """Processes, of which so many percent look at some memory twenty times a second."""
    work = "x=bytearray(200000)\nimport time\nwhile True:\n x[::4096]=x[::4096]\n sum(range(20000))\n time.sleep(.05)"
    working = count * percent // 100
    sleepers = [["sleep", "infinity"]] * (count - working)
    return [subprocess.Popen(command) for command in [["python3", "-c", work]] * working + sleepers]


def finish(recorder):
    """Milliseconds of processor time."""
    _, status, usage = os.wait4(recorder.pid, 0)
    if status != 0:
        raise SystemExit(f"{recorder.args[0]} ended with {status}")
    return (usage.ru_utime + usage.ru_stime) * 1000, usage.ru_maxrss


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("programs")
    parser.add_argument("--samples", type=int, default=180)
    parser.add_argument("--processes", type=int, default=300)
    parser.add_argument("--working", type=int, default=5)
    parser.add_argument("--atop", default="atop")
    arguments = parser.parse_args()
    samples = arguments.samples
    processes = crowd(arguments.processes, arguments.working)
    try:
        time.sleep(3)
        with tempfile.TemporaryDirectory() as folder:
            files = {"volornctl record": f"{folder}/record.db", "atop -w": f"{folder}/atop.raw"}
            commands = [
                [f"{arguments.programs}/volornctl", "record", "-d", "1", "-n", str(samples), "--output"]
                + [files["volornctl record"]],
                [arguments.atop, "-w", files["atop -w"], "1", str(samples)],
            ]
            recorders = [subprocess.Popen(command, stdout=subprocess.DEVNULL) for command in commands]
            costs = {name: finish(recorder) for name, recorder in zip(files, recorders)}
            sizes = {name: os.stat(file).st_size for name, file in files.items()}
    finally:
        for process in processes:
            process.kill()
            process.wait()
    for name, (milliseconds, rss_kib) in costs.items():
        print(
            f"{name:17} {sizes[name] / samples:8.0f} bytes {milliseconds / samples:7.2f} ms a sample, "
            f"{rss_kib} KiB at most"
        )
    ours, theirs = files
    print(
        f"bytes {sizes[ours] / sizes[theirs]:.3f}, processor time {costs[ours][0] / costs[theirs][0]:.3f} of the other's"
    )


main()
