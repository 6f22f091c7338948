"""volornd where something is missing, full, spoilt or in the way: it ends well, and destroys nothing."""

import contextlib
import itertools
import os
import pathlib
import resource
import struct
import subprocess

import host


# The sanitizers need descriptors of their own, and complain of nothing real without them.
SANITIZED = b"__ubsan" in pathlib.Path(host.VOLORND).read_bytes()

# What is done to a state of yesterday in /var/lib so that nothing can be kept, and why not.
UNUSABLE = [
    ("mount --bind -o ro volorn volorn", "attempt to write a readonly database"),
    ("rm -r volorn && touch volorn", f"{host.STATE}: Not a directory"),
    ("rm -r volorn && ln -s nowhere volorn", f"{host.STATE}: No such file or directory"),
    ("rm volorn/* && mount --bind -o ro volorn volorn", f"{host.STATE}/volorn.lock: Read-only file system"),
    ("rm -r volorn && mount -o remount,ro .", f"{host.STATE}: Read-only file system"),
]


PAGE = 4096


def withEndlessPages(good):
    """The metrics of the first snapshot, again and again: each page of theirs holds the next two hundred times."""
    host.restore({"volorn.db": good})
    with host.opened() as database:
        database.execute("UPDATE upkeep SET done_at = 0")
        root_of = "SELECT rootpage FROM sqlite_schema WHERE name = 'metric'"
        (root,) = database.execute(root_of).fetchone()
    pages = bytearray(host.FILE.read_bytes())
    leaf = pages[(root - 1) * PAGE : root * PAGE]
    (first,) = struct.unpack_from(">H", leaf, 8)
    row = leaf[first : first + 1 + leaf[first]]

    def pageOver(child):
        cells = (struct.pack(">I", child) + row) * 200
        begin = PAGE - len(cells)
        places = struct.pack(">200H", *range(begin, PAGE, 4 + len(row)))
        return (struct.pack(">BHHHBI", 2, 0, 200, begin, 0, child) + places).ljust(begin, b"\0") + cells

    count = len(pages) // PAGE
    pages[(root - 1) * PAGE : root * PAGE] = pageOver(count + 1)
    for child in range(count + 2, count + 8):
        pages += pageOver(child)
    pages += leaf
    struct.pack_into(">I", pages, 28, len(pages) // PAGE)
    return bytes(pages)


# What stands in the place of the state file of yesterday, and SQLite's word for it.
SPOILT = [
    ("random pages", lambda good: good[:4096] + os.urandom(8192), "database disk image is malformed"),
    (
        "pages that hold each other",
        withEndlessPages,
        "*** in database main *** On tree page 17 cell 199: 2nd reference to page 18",
    ),
]


@contextlib.contextmanager
def pagesLeft(number):
    """That many on the disk of the state folder."""
    files = host.save()
    with host.mounted("-t", "tmpfs", "small", str(host.STATE)):
        host.fill({**files, "ballast": bytes(PAGE)})
        disk = os.statvfs(host.STATE)
        bytes_kept = (disk.f_blocks - disk.f_bfree + number) * PAGE
        subprocess.run(["mount", "-o", f"remount,size={bytes_kept}", str(host.STATE)], check=True)
        yield {}
        (host.STATE / "ballast").unlink()
        files = host.save()
    host.restore(files)


def limited(limit, value):
    """As options of a run."""
    return contextlib.nullcontext({"preexec_fn": lambda: resource.setrlimit(limit, (value, value))})


KINDS = {
    "pages": (range(0, 40), pagesLeft),
    "largest file": (
        [0, 1, 100, 512, 4096, 8192, 16384, 32768, 10**6],
        lambda number: limited(resource.RLIMIT_FSIZE, number),
    ),
}
if not SANITIZED:
    # With seven the run is kept, without the load averages.
    KINDS["descriptors"] = ([4, 5, 6, 8, 9], lambda number: limited(resource.RLIMIT_NOFILE, number))


class AdversityTest(host.Test):
    def testNowhereToKeepAnything(self):
        yesterday = self.makeStateOf(2)
        for script, reason in UNUSABLE:
            with self.subTest(script), host.mounted("-t", "tmpfs", "lib", str(host.LIB)):
                host.restore(yesterday)
                subprocess.run(["sh", "-ec", script], check=True, cwd=host.LIB, stdout=subprocess.DEVNULL)
                before = host.save(host.LIB), host.save()
                self.assertIn(host.lossOf(reason), self.runDaemon())
                self.assertEqual((host.save(host.LIB), host.save()), before)

    def testSpoiltFileIsSetAside(self):
        yesterday = self.makeStateOf(2)
        for name, spoil, reason in SPOILT:
            with self.subTest(name):
                spoilt = spoil(yesterday["volorn.db"])
                host.restore({**yesterday, "volorn.db": spoilt})
                self.assertEqual(
                    [line for line in self.runDaemon() if line.startswith("state file")],
                    [f"state file {host.FILE}: {reason}; it is set aside and the run begins again"],
                )
                self.assertEqual(host.setAside(), [spoilt])
                self.checkRun(host.State(), host.readState())
        for odd, log in (
            ({"volorn.db": b""}, host.NEW),
            ({"volorn.db-journal": os.urandom(8192)}, host.LATE),
        ):
            with self.subTest(odd.keys()):
                host.restore({**yesterday, **odd})
                before = host.readState()
                self.assertEqual(self.runDaemon(), log)
                self.checkRun(before, host.readState())

    def testStarved(self):
        """All of the run is kept, or nothing and the log says so. Then one that lacks nothing."""
        yesterday = self.makeStateOf(2)
        for (what, (amounts, limit)), files in itertools.product(KINDS.items(), ({}, yesterday)):
            kept = []
            for amount in amounts:
                with self.subTest(what, amount=amount, files=files.keys()):
                    host.restore(files)
                    before = host.readState()
                    with limit(amount) as options:
                        log = self.runDaemon(**options)
                    kept.append(self.isWholeRun(before, host.readState()))
                    told = [line for line in log if line.startswith(f"state file {host.FILE}: ")]
                    self.assertEqual(len(told), 0 if kept[-1] else 1, log)
                    self.runDaemon()
                    self.checkRun(before, host.readState())
            with self.subTest(what, files=files.keys()):
                self.assertEqual(kept, sorted(kept), "more is no worse")
                self.assertEqual({False, True}, set(kept))

    def testDescriptorsThatAreNotThere(self):
        yesterday = self.makeStateOf(2)
        closed = "<&-, >&-, 2>&-, <&- >&-, <&- 2>&-, >&- 2>&-, <&- >&- 2>&-, 2>/dev/full, 2</dev/null"
        for redirection in [*closed.split(", "), "2> >(:); wait $!; exec"]:
            with self.subTest(redirection):
                host.restore(yesterday)
                before = host.readState()
                self.runDaemon(["bash", "-c", f"exec {redirection} {host.VOLORND}"])
                self.checkRun(before, host.readState())

    def testModesUnderAnyMask(self):
        for mask in (0, 0o077, 0o777):
            with self.subTest(f"{mask:o}"):
                host.restore(None)
                self.runDaemon(umask=mask)
                modes = {
                    path.name: path.stat().st_mode & 0o777 for path in [host.STATE, *host.STATE.iterdir()]
                }
                lock = modes.pop("volorn.lock")
                self.assertEqual((modes.pop("volorn"), lock, set(modes.values())), (0o755, 0o600, {0o640}))


if __name__ == "__main__":
    host.main()
