#!/usr/bin/python3
"""What a sample of `top` costs beside its peers, whole programs in turn: processor time a process and sample, of
the samples that follow the first, among processes of which so many of a hundred sleep. Root sees no others.

    bench/top.py FOLDER_OF_PROGRAMS [--processes N] [--asleep PERCENT] [--samples N] [--turns N]"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile

AWAKE = "import time\nwhile True: x = bytearray(300000); time.sleep(0.02)"
ASLEEP = "import signal, random, json, ssl; print(flush=True); signal.pause()"
# Of ours, at most: of a crowd that sleeps, and of one in which five of a hundred do not.
REACHES = {"top -b": (0.5, 0.7), "atop -w": (0.2, 0.25)}


def cost(command):
    """Microseconds of processor time."""
    with open(os.devnull, "w", encoding="ascii") as nowhere:
        pid = os.posix_spawnp(
            command[0],
            command,
            os.environ,
            file_actions=[(os.POSIX_SPAWN_DUP2, nowhere.fileno(), 1)],
        )
    _, status, usage = os.wait4(pid, 0)
    if status != 0:
        sys.exit(f"{command} failed")
    return 1e6 * (usage.ru_utime + usage.ru_stime)


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("programs")
    parser.add_argument("--processes", type=int, default=600)
    parser.add_argument("--asleep", type=int, default=100, metavar="PERCENT")
    parser.add_argument("--samples", type=int, default=50)
    parser.add_argument("--turns", type=int, default=3)
    arguments = parser.parse_args()
    if os.geteuid() == 0 and os.getpid() != 1:
        alone = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
        os.execvp(alone[0], [*alone, sys.executable, *sys.argv])
    awake = arguments.processes * (100 - arguments.asleep) // 100
    crowd = [subprocess.Popen([sys.executable, "-c", AWAKE]) for _ in range(awake)]
    for _ in range(arguments.processes - awake):
        crowd.append(subprocess.Popen([sys.executable, "-c", ASLEEP], stdout=subprocess.PIPE))
        crowd[-1].stdout.readline()
        crowd[-1].stdout.close()
    with tempfile.TemporaryDirectory() as folder:
        commands = {
            "volornctl top --json": lambda n: [
                f"{arguments.programs}/volornctl",
                "top",
                "--json",
                "-d",
                "0.1",
                "-n",
                str(n),
            ],
            "top -b": lambda n: ["top", "-b", "-d", "0.1", "-n", str(n)],
            "atop -w": lambda n: ["atop", "-w", f"{folder}/{n}", "1", str(n)],
        }
        costs = {name: [] for name in commands}
        for _ in range(arguments.turns):
            for name, command in commands.items():
                more = 9 if name == "atop -w" else arguments.samples - 1  # it takes one a second
                costs[name].append((cost(command(1 + more)) - cost(command(1))) / more / len(crowd))
    for process in crowd:
        process.kill()
        process.wait()
    print(f"{len(crowd)} processes, {awake} awake; of a process and sample:")
    for name, microseconds in costs.items():
        print(f"{name:22} {statistics.median(microseconds):6.1f} us", [round(us, 1) for us in microseconds])
    ours = costs["volornctl top --json"]
    for name, reaches in REACHES.items():
        ratio = statistics.median(a / b for a, b in zip(ours, costs[name]))
        most = reaches[awake > 0]
        print(f"beside {name:15} {ratio:6.2f}  (at most {most}{'' if ratio <= most else ': MISSED'})")


main()
