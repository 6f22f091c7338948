"""Compares the memory report of this machine with what readelf and /proc tell of its processes."""

import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest

PROGRAM = os.path.abspath(os.path.join(sys.argv.pop(1), "volornctl"))
NOBODY = 65534
ATTEMPTS = 40  # what has just begun to rest may still take a page
STEPS = ("proc_name", "proc_pidinfo", "task_for_pid", "task_info_basic", "task_info_extmod")
FIRST_LINES = "\n            Name                <UUID>                                  rpages\n"

# Waits until nobody holds its standard input open.
SOURCE = "#include <unistd.h>\nint main(void) { char byte; write(1, \"\", 1); read(0, &byte, 1); }\n"
IDS = {"none": "none", "short": "0x1122334455667788", "usual": "0x" + "ab" * 16 + "cdcdcdcd",
       "long": "0x" + "0123456789abcdef" * 4}


def executable(pid):
    """What the link leads to, as something that changes with it; none without a right to know or a link."""
    try:
        status = os.stat(f"/proc/{pid}/exe")
        return status.st_dev, status.st_ino, status.st_ctime_ns
    except OSError:
        return None


def build_id(path):
    """As readelf tells it, in the report's form."""
    notes = subprocess.run(["readelf", "-n", path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                           text=True, check=False).stdout
    found = re.search(r"Build ID: ([0-9a-f]+)", notes)
    return (found[1] if found else "")[:32].ljust(32, "0")


def resident_pages(pid):
    pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text(encoding="ascii").split()[1])
    return pages * resource.getpagesize() // 4096


def report(*arguments, program=PROGRAM, **options):
    done = subprocess.run([program, "memory", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=600, check=False, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def rows(**options):
    status, output, errors = report("--json", **options)
    assert (status, errors) == (0, ""), errors
    document = json.loads(output)
    assert document["schema"] == 1
    return {row["pid"]: row for row in document["processes"]}


class MemoryTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        os.chmod(self.folder, 0o755)

    def start(self, path):
        """Returns the process at rest."""
        child = subprocess.Popen([path], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(lambda: (child.communicate(), child.wait()))
        child.stdout.read(1)
        return child

    def compile(self, name, *options):
        path = os.path.join(self.folder, name)
        subprocess.run(["gcc", "-w", "-x", "c", "-", "-o", path, *options], input=SOURCE, text=True, check=True)
        return path

    def test_identifiers_are_those_of_readelf(self):
        made = {self.start(self.compile(name, f"-Wl,--build-id={value}")).pid: value
                for name, value in IDS.items()}
        before = {int(name): executable(name) for name in os.listdir("/proc") if name.isdigit()}
        shown = rows()
        known = {}
        compared = 0
        for pid, row in shown.items():
            same = before.get(pid)
            if "uuid" not in row or same is None:
                continue
            expected = known.get(same) or build_id(f"/proc/{pid}/exe")
            if executable(pid) == same:  # else it may have ended before readelf looked
                known[same] = expected
                self.assertEqual(row["uuid"], expected, row)
                compared += 1
        self.assertGreater(compared, len(made))
        for pid, value in made.items():
            self.assertEqual(shown[pid]["uuid"], value.replace("none", "").removeprefix("0x")[:32].ljust(32, "0"))

    def test_resident_pages_are_those_of_statm(self):
        children = [self.start(self.compile(name)) for name in ("one", "two")]
        for child in children:
            for _ in range(ATTEMPTS):
                shown = rows()[child.pid]
                pages = resident_pages(child.pid)
                if shown["rpages"] == pages:
                    break
            self.assertEqual(shown["rpages"], pages)
            self.assertEqual(shown["name"], os.path.basename(child.args[0]))

    def test_no_name_forges_a_row(self):
        forged = "a\nb\x1b[2J\\"
        os.rename(self.compile("plain"), os.path.join(self.folder, forged))
        child = self.start(os.path.join(self.folder, forged))
        status, text, errors = report()
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(text.startswith(FIRST_LINES))
        self.assertRegex(text, r"a\\u\{a\}b\\u\{1b\}\[2J\\\\  <[0-9a-f]{32}>  {1,20}\d+\n")
        self.assertNotIn("\x1b", text)
        self.assertEqual(rows()[child.pid]["name"], forged)

    def test_others_processes_are_errors_to_who_may_not_look(self):
        program = os.path.join(self.folder, "volornctl")
        shutil.copy(PROGRAM, program)
        drop = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        shown = rows(program=program, **drop)
        ours = os.getpid() if drop else 1
        self.assertEqual(shown[ours]["error"], "task_for_pid")
        self.assertTrue(all(row.get("error", "task_for_pid") in STEPS for row in shown.values()))
        status, text, _ = report(program=program, **drop)
        self.assertEqual(status, 0)
        self.assertRegex(text, rf"getMemoryData: task_for_pid returned error for pid: {ours}, name : \S")

    def test_few_descriptors_are_enough(self):
        limit = (64, 64)
        shown = rows(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, limit))
        self.assertEqual(shown[os.getpid()]["uuid"], build_id(f"/proc/{os.getpid()}/exe"))

    def test_without_processes_there_is_no_report(self):
        namespace = ["--mount"] if os.geteuid() == 0 else ["--mount", "--map-root-user"]
        for arguments in ("", "--json"):
            script = f'mount -t tmpfs none /proc && exec "$0" memory {arguments}'
            # The sanitizers miss /proc too: their leak check is left out, and what they say is passed over.
            done = subprocess.run(["unshare", *namespace, "sh", "-c", script, PROGRAM], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True, check=False,
                                  env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertRegex(done.stderr, r"(?m)^volornctl: the processes cannot be listed: .+$")


if __name__ == "__main__":
    unittest.main()
