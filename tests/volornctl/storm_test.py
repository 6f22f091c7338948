"""Summary, memory report and `top` among processes of every size and name, while others are born and die.

VOLORN_STORM_PERCENT says how large: 100 is 30,000 processes, 10,000 threads and 60,000 mappings, and takes minutes
and seven gigabytes. The processes are those of a pid namespace of the test's own, and end with it.
"""

import contextlib
import ctypes
import json
import mmap
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import host

PERCENT = float(os.environ.get("VOLORN_STORM_PERCENT", "1"))
PROCESSES = int(300 * PERCENT)
THREADS = int(100 * PERCENT)
MAPPINGS = int(600 * PERCENT)
REPEATS = 1 + int(PERCENT / 20)
NOBODY = 65534
PAGE = resource.getpagesize()
SPARSE = 1 << 40
PR_SET_PDEATHSIG, PR_SET_DUMPABLE, PR_SET_NAME = 1, 4, 15

NAMES = (
    b'plain|line\nline|"quoted"|back\\slash|\x1b[2J\x1b[1m|\xff\xfe\x80|\xe2\x82|)|((a) b|) S 1 2 3|a\tb\rc|{"pid": 1}|'
    b"_1_2_3|\x01other|%s%n%d|fifteen bytes..|\xc3\xa9t\xc3\xa9|</td>|\x7f\x00| "
).split(b"|")
libc = ctypes.CDLL(None, use_errno=True)


def rename(name):
    libc.prctl(PR_SET_NAME, ctypes.c_char_p(name), 0, 0, 0)


def leaveRoom():
    """Half of the process ids, to others. Asked outside of the namespace, which does not tell."""
    pid_max = int(pathlib.Path("/proc/sys/kernel/pid_max").read_text())
    if 2 * (PROCESSES + THREADS) > pid_max:
        sys.exit(f"kernel.pid_max is {pid_max}: a storm of this size would leave the machine no process ids")


def takeRoom():
    """As much as the limits of this process give."""
    for limit in (resource.RLIMIT_NPROC, resource.RLIMIT_NOFILE):
        _, most = resource.getrlimit(limit)
        resource.setrlimit(limit, (most, most))


class Party:
    """Processes that began with this object and rest until it ends."""

    def __init__(self):
        self.pids = []

    def add(self, behaviour, *arguments):
        """Returns the process once its behaviour is over and it rests."""
        ready, tell = os.pipe()
        pid = os.fork()
        if pid == 0:
            try:
                os.close(ready)
                kept = behaviour(*arguments)
                os.write(tell, b".")
                os.close(tell)
                libc.pause()
                del kept
            finally:
                os._exit(1)
        self.pids.append(pid)
        os.close(tell)
        with open(ready, "rb") as answer:
            if not answer.read(1):
                raise AssertionError(f"{behaviour.__name__} failed")
        return pid

    def addCrowd(self, count):
        """Small ones: an interpreter each would take more memory than many a machine has."""
        crowd = [os.posix_spawn("/bin/sleep", ["crowd", "infinity"], {}) for _ in range(count)]
        self.pids += crowd
        return crowd

    def end(self):
        for pid in self.pids:
            os.kill(pid, 9)
        for pid in self.pids:
            os.waitpid(pid, 0)


def beCalled(name, owner=0):
    rename(name)
    if owner:
        os.setresgid(owner, owner, owner)
        os.setresuid(owner, owner, owner)
        libc.prctl(PR_SET_DUMPABLE, 1, 0, 0, 0)  # else it would stay root's for who looks at it


def reserve():
    """Of memory that counts page by page as it is touched, however strict the kernel is in lending it."""
    file = os.memfd_create("reserved")
    os.ftruncate(file, SPARSE)
    memory = mmap.mmap(file, SPARSE)
    for at in range(0, SPARSE, SPARSE // 8):
        memory[at] = 1
    return memory


def divide(mappings):
    """A mapping for every page, for neighbours differ in what they allow."""
    memory = mmap.mmap(-1, mappings * PAGE, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
    memory.write(b"x" * len(memory))
    start = ctypes.addressof(ctypes.c_char.from_buffer(memory))
    for page in range(0, mappings, 2):
        if libc.mprotect(ctypes.c_void_p(start + page * PAGE), ctypes.c_size_t(PAGE), 1) != 0:
            raise OSError(ctypes.get_errno(), "mprotect")
    return memory


def divideThreads(threads):
    threading.stack_size(65536)
    for _ in range(threads - 1):
        threading.Thread(target=libc.pause, daemon=True).start()


def storm(owners, crowd):
    """Processes that are born and die without end, so many at a time."""
    libc.prctl(PR_SET_PDEATHSIG, 9, 0, 0, 0)
    living = 0
    number = 0
    while True:
        number += 1
        if living == crowd:
            while living > 0:
                os.wait()
                living -= 1
        pid = os.fork()
        living += 1
        if pid == 0:
            rename(NAMES[number % len(NAMES)])
            if owner := owners[number % len(owners)]:
                os.setresuid(owner, owner, owner)
            if number % 7 == 0:
                os.execv("/bin/true", [""])
            os._exit(0)


@contextlib.contextmanager
def storming(owners=(0, 0, NOBODY), crowd=200):
    pid = os.fork()
    if pid == 0:
        try:
            storm(owners, crowd)
        finally:
            os._exit(1)
    try:
        yield
    finally:
        os.kill(pid, 9)
        os.waitpid(pid, 0)
        # Its children's zombies are ours to bury: here we are the first process.
        with contextlib.suppress(ChildProcessError):
            while os.waitpid(-1, os.WNOHANG) != (0, 0):
                pass


def output(*command, program=host.VOLORNCTL, **options):
    status, text, errors = host.run(program, *command, "--json", timeout=1200, **options)
    if (status, errors) != (0, ""):
        raise AssertionError((command, status, errors))
    return text


def byPid(rows):
    found = {row["pid"]: row for row in rows}
    assert len(found) == len(rows), "a pid twice"
    return found


def reports(**options):
    """Every look at the processes: its rows by pid, the field of the name, and that of bytes of their own."""
    summary = json.loads(output("summary", **options))
    stats = summary["Process Stats"]
    for key, row in stats.items():
        assert key == f"{row['Command']}_{row['pid']}", key
    assert summary["Processes/Total"] == len(stats), summary["Processes/Total"]
    threads = sum(row["Kernel Resources/Threads"] for row in stats.values())
    assert summary["Kernel Resources/Threads"] == threads, threads
    yield byPid(stats.values()), "Command", "Memory Regions/Resident Size (Private)"
    for _ in range(REPEATS):
        yield byPid(json.loads(output("memory", **options))["processes"]), "name", "residentBytes"
    for line in output("top", "--count", "3", "--interval", "0.1", **options).splitlines():
        yield byPid(json.loads(line)["processes"]), "command", "privateBytes"


def shown(name):
    return name.partition(b"\0")[0][:15].decode(errors="replace")


class StormTest(unittest.TestCase):
    maxDiff = 2000

    def setUp(self):
        self.party = Party()
        self.addCleanup(self.party.end)

    def testSizesAndNames(self):
        threads = min(THREADS, 10000)
        mappings = min(MAPPINGS, int(pathlib.Path("/proc/sys/vm/max_map_count").read_text()) - 1000)
        # An empty name is that of the program's path, of which Python's own has none other.
        unnamed = self.party.add(beCalled, b"")
        named = {self.party.add(beCalled, name): shown(name) for name in NAMES}
        sparse, divided = self.party.add(reserve), self.party.add(divide, mappings)
        threaded = self.party.add(divideThreads, threads)
        sizes = {sparse: 8 * PAGE, divided: mappings * PAGE}
        stayed = {unnamed, *named, *sizes, threaded, os.getpid(), *self.party.addCrowd(PROCESSES)}
        least = {
            "Command": [
                (threaded, "Kernel Resources/Threads", threads),
                (divided, "Memory Regions/Count", mappings),
                (sparse, "Memory Regions/Virtual Size", SPARSE),
            ],
            "name": [],
            "command": [(threaded, "threads", threads), (sparse, "virtualBytes", SPARSE)],
        }
        with storming():
            for rows, name, bytes_held in reports():
                self.assertLessEqual(stayed, rows.keys())
                self.assertEqual({pid: rows[pid][name] for pid in named}, named)
                wrong = [rows[pid] for pid in stayed - {unnamed} if "error" in rows[pid]]
                self.assertEqual(wrong, [])
                for pid, field, figure in [*least[name], *((pid, bytes_held, sizes[pid]) for pid in sizes)]:
                    self.assertGreaterEqual(rows[pid][field], figure, field)

    def testProcessesThatAreHidden(self):
        with tempfile.TemporaryDirectory() as folder:
            os.chmod(folder, 0o755)
            program = shutil.copy(host.VOLORNCTL, folder)
            drop = {"program": program, "user": NOBODY, "group": NOBODY, "extra_groups": [], "cwd": "/"}
            others = {self.party.add(beCalled, b"other") for _ in range(20)} | {os.getpid()}
            own = {self.party.add(beCalled, b"own", NOBODY) for _ in range(20)}
            for hidden in (0, 1, 2):
                with self.subTest(hidden), host.mounted(
                    "-t", "proc", "-o", f"hidepid={hidden}", "proc", "/proc"
                ), storming(owners=[0]):
                    for rows, name, _ in reports(**drop):
                        self.assertEqual({rows[pid][name] for pid in own}, {"own"})
                        self.assertEqual([rows[pid] for pid in own if "error" in rows[pid]], [])
                        if hidden:
                            seen = [row[name] for pid, row in rows.items() if pid not in own]
                            self.assertEqual(seen, ["volornctl"])
                        elif name == "name":
                            self.assertEqual({rows[pid]["error"] for pid in others}, {"task_for_pid"})

    def testTopGrowsNoMemory(self):
        """Past its sixtieth sample the sampler begins anew."""
        rounds = []
        words = ["top", "--json", "--interval", "0.01", "--count", "240"]
        with storming(crowd=10), subprocess.Popen([host.VOLORNCTL, *words], stdout=subprocess.PIPE) as top:
            status = pathlib.Path(f"/proc/{top.pid}/status")
            for number, _ in enumerate(top.stdout, 1):
                if number % 60 == 0 and number < 240:  # after the last there may be no process
                    rounds.append(int(status.read_text().split("VmHWM:")[1].split()[0]))
        print(f"top's largest resident memory, every 60 samples: {rounds} KiB")
        # What is left behind is so in each round; the storm itself is not the same in each.
        self.assertLess(rounds[-1], rounds[0] * 1.2 + 1024)


if __name__ == "__main__":
    if "VOLORN_TEST_NAMESPACE" in os.environ:
        takeRoom()
    else:
        leaveRoom()
    host.main("--pid", "--fork", "--kill-child=KILL", "--mount-proc")
