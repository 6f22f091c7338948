"""volornd where something is missing, full, spoilt or in the way: it ends well, and destroys nothing."""

import contextlib
import itertools
import os
import pathlib
import resource
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

LOCK = host.STATE / "volorn.lock"

# The sanitizers need descriptors of their own, and complain of nothing real without them.
SANITIZED = b"__ubsan" in pathlib.Path(host.VOLORND).read_bytes()


def readOnly(folder):
    return host.mounted("--bind", "-o", "ro", str(folder), str(folder))


@contextlib.contextmanager
def noFolder():
    host.STATE.rmdir()
    with readOnly(host.LIB):
        yield


@contextlib.contextmanager
def instead(path, make):
    """Something else in the place of the file or folder."""
    aside = path.with_name("aside")
    if path.exists():
        path.rename(aside)
    make(path)
    try:
        yield
    finally:
        if path.is_dir() and not path.is_symlink():
            path.rmdir()
        else:
            path.unlink()
        if aside.exists():
            aside.rename(path)


def linkToNowhere(path):
    path.symlink_to("nowhere")


def linkToAside(path):
    path.symlink_to("aside")


@contextlib.contextmanager
def edited(statement):
    host.editState(statement)
    yield


NO_FILE = f"{host.FILE}: not a regular file: Invalid argument"

# Where nothing can be kept, and why not. They are tried with a state of yesterday.
UNUSABLE = [
    ("read-only folder", lambda: readOnly(host.STATE), "attempt to write a readonly database"),
    ("file for a folder", lambda: instead(host.STATE, pathlib.Path.touch), f"{host.STATE}: Not a directory"),
    ("FIFO for a folder", lambda: instead(host.STATE, os.mkfifo), f"{host.STATE}: Not a directory"),
    ("dangling folder", lambda: instead(host.STATE, linkToNowhere), f"{host.STATE}: No such file or directory"),
    ("folder for a file", lambda: instead(host.FILE, os.mkdir), NO_FILE),
    ("FIFO for a file", lambda: instead(host.FILE, os.mkfifo), NO_FILE),
    ("link to the file", lambda: instead(host.FILE, linkToAside), NO_FILE),
    ("dangling file", lambda: instead(host.FILE, linkToNowhere), NO_FILE),
    ("link to the lock", lambda: instead(LOCK, linkToAside), f"{LOCK}: Too many levels of symbolic links"),
    ("folder for a lock", lambda: instead(LOCK, os.mkdir), f"{LOCK}: Is a directory"),
    ("newer schema", lambda: edited("PRAGMA user_version = 2"),
     "it was written by a newer program, and is left as it is"),
]

# The same on a machine where no daemon has run.
UNUSABLE_AT_FIRST = [
    ("read-only empty folder", lambda: readOnly(host.STATE), f"{LOCK}: Read-only file system"),
    ("no folder and no right to make one", noFolder, f"{host.STATE}: Read-only file system"),
]

def altered(*statements):
    """The file after statements that no daemon would run, the schema open to them."""
    def alter(good):
        with tempfile.NamedTemporaryFile() as file:
            file.write(good)
            file.flush()
            with host.opened(file.name) as database:
                database.execute("PRAGMA writable_schema = ON")
                for statement in statements:
                    database.execute(statement)
            return pathlib.Path(file.name).read_bytes()
    return alter


def withUnequalIndex(good):
    """One metric's name is another in the table than in the index; none but a check of the whole file sees it."""
    name = b"com.zorvik.snapshot.thermalLevel"
    return altered("UPDATE upkeep SET done_at = 0")(good).replace(name, name[:-1] + b"x", 1)


PAGE = 4096


def withEndlessPages(good):
    """The metrics of the first snapshot, again and again: each page of theirs holds the next two hundred times."""
    with tempfile.NamedTemporaryFile() as file:
        pathlib.Path(file.name).write_bytes(good)
        with host.opened(file.name) as database:
            database.execute("UPDATE upkeep SET done_at = 0")
            root = database.execute("SELECT rootpage FROM sqlite_schema WHERE name = 'metric'").fetchone()[0]
        pages = bytearray(pathlib.Path(file.name).read_bytes())
    leaf = pages[(root - 1) * PAGE:root * PAGE]
    first, = struct.unpack_from(">H", leaf, 8)
    row = leaf[first:first + 1 + leaf[first]]

    def pageOver(child):
        cells = (struct.pack(">I", child) + row) * 200
        begin = PAGE - len(cells)
        places = struct.pack(">200H", *range(begin, PAGE, 4 + len(row)))
        return (struct.pack(">BHHHBI", 2, 0, 200, begin, 0, child) + places).ljust(begin, b"\0") + cells

    count = len(pages) // PAGE
    pages[(root - 1) * PAGE:root * PAGE] = pageOver(count + 1)
    for child in range(count + 2, count + 8):
        pages += pageOver(child)
    pages += leaf
    struct.pack_into(">I", pages, 28, len(pages) // PAGE)
    return bytes(pages)


ENDLESS = "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n) SELECT max(i)"

# What stands in the place of the state file of yesterday: its bytes spoilt, and SQLite's word for it.
NO_DATABASE = "file is not a database"
MALFORMED = "database disk image is malformed"
OTHER_TABLES = "its tables are not those that were made"
SPOILT = [
    ("random bytes", lambda good: os.urandom(20000), NO_DATABASE),
    ("zeros", lambda good: bytes(8192), NO_DATABASE),
    ("two bytes", lambda good: good[:2], NO_DATABASE),
    ("half a header", lambda good: good[:50], MALFORMED),
    ("the header alone", lambda good: good[:100], MALFORMED),
    ("half a page", lambda good: good[:2000], MALFORMED),
    ("one page", lambda good: good[:4096], MALFORMED),
    ("half the file", lambda good: good[:len(good) // 2], MALFORMED),
    ("pages of nothing", lambda good: good[:4096] + bytes(len(good) - 4096), MALFORMED),
    ("random pages", lambda good: good[:4096] + os.urandom(len(good) - 4096), MALFORMED),
    ("text", lambda good: b"[preferences]\n" * 500, NO_DATABASE),
    ("another program's", lambda good: good[:68] + b"GPKG" + good[72:], "it holds another program's data"),
    ("a trigger that does not end", altered(
        f"CREATE TRIGGER t AFTER INSERT ON preference BEGIN UPDATE upkeep SET done_at = ({ENDLESS} FROM n); END"),
     OTHER_TABLES),
    ("a view that does not end", altered("DROP TABLE job", "CREATE VIEW job AS SELECT 'x' name, i window_start, "
                                         f"i window_end FROM ({ENDLESS} i FROM n)"), OTHER_TABLES),
    ("a column by another name", altered("ALTER TABLE metric RENAME COLUMN value TO amount"), OTHER_TABLES),
    ("an index more", altered("CREATE INDEX i ON metric (value)"), OTHER_TABLES),
    ("a schema that is no SQL", altered("UPDATE sqlite_schema SET sql = 'CREATE TABLE job (\n' WHERE name = 'job'"),
     "malformed database schema (job) - incomplete input"),
    ("an index that disagrees", withUnequalIndex, "row 3 missing from index sqlite_autoindex_metric_key_1"),
    ("a header that lets nobody write", lambda good: good[:18] + b"\3" + good[19:], "its header lets nobody write"),
    ("pages that hold each other", withEndlessPages,
     "*** in database main *** On tree page 14 cell 199: 2nd reference to page 15"),
    ("older than any", lambda good: good[:60] + bytes(4) + good[64:], "it holds another program's data"),
]


def limited(limit, value):
    return {"preexec_fn": lambda: resource.setrlimit(limit, (value, value))}


class AdversityTest(host.Test):
    def testNowhereToKeepAnything(self):
        yesterday = self.makeStateOf(2)
        for files, log, cases in ((yesterday, None, UNUSABLE), ({}, host.NEW, UNUSABLE_AT_FIRST)):
            for name, prepared, reason in cases:
                with self.subTest(name):
                    host.restore(files)
                    with prepared():
                        before = host.save()
                        lines = self.runDaemon()
                        self.assertIn(host.lossOf(reason), lines)
                        self.assertEqual(host.save(), before)
                    if log:
                        self.assertEqual(lines, [host.lossOf(reason), *log])

    def testSpoiltFileIsSetAside(self):
        yesterday = self.makeStateOf(2)
        for name, spoil, reason in SPOILT:
            with self.subTest(name):
                spoilt = spoil(yesterday["volorn.db"])
                host.restore({**yesterday, "volorn.db": spoilt})
                self.assertEqual([line for line in self.runDaemon() if line.startswith("state file")],
                                 [f"state file {host.FILE}: {reason}; it is set aside and the run begins again"])
                aside = list(host.STATE.glob("volorn.db.damaged-????????T??????Z"))
                self.assertEqual([path.read_bytes() for path in aside], [spoilt])
                self.checkRun(host.State(), host.readState())
        with self.subTest("length of 0"):
            host.restore({**yesterday, "volorn.db": b""})
            self.assertEqual(self.runDaemon(), host.NEW)
            self.checkRun(host.State(), host.readState())
        with self.subTest("random journal"):
            host.restore({**yesterday, "volorn.db-journal": os.urandom(8192)})
            before = host.readState()
            self.assertEqual(self.runDaemon(), host.LATE)
            self.checkRun(before, host.readState())

    def testReadersOfPagesThatHoldEachOther(self):
        yesterday = self.makeStateOf(2)
        host.restore({**yesterday, "volorn.db": withEndlessPages(yesterday["volorn.db"])})
        for command in ("metrics", "history"):
            done = subprocess.run([host.VOLORNCTL, command, "--json"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  text=True, timeout=120)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertIn("damaged (interrupted)", done.stderr)

    def checkStarved(self, files, prepared, **options):
        """Whether the run was kept: all of it, or nothing and the log says so. Then one that lacks nothing."""
        host.restore(files)
        before = host.readState()
        with prepared:
            log = self.runDaemon(**options)
        kept = self.isWholeRun(before, host.readState())
        told = [line for line in log if line.startswith(f"state file {host.FILE}: ")]
        self.assertEqual(len(told), 0 if kept else 1, log)
        self.runDaemon()
        self.checkRun(before, host.readState())
        return kept

    def testStarved(self):
        @contextlib.contextmanager
        def free(pages):
            files = host.save()
            with host.mounted("-t", "tmpfs", "-o", "size=256k", "small", str(host.STATE)):
                for name, content in files.items():
                    (host.STATE / name).write_bytes(content)
                ballast = host.STATE / "ballast"
                with contextlib.suppress(OSError), open(ballast, "wb", buffering=0) as file:
                    while file.write(bytes(4096)) == 4096:
                        pass
                os.truncate(ballast, max(ballast.stat().st_size - 4096 * pages, 0))
                yield
                ballast.unlink()
                files = host.save()
            host.restore(files)

        nothing = contextlib.nullcontext()
        kinds = [
            ("pages on the disk", range(0, 40), lambda n: (free(n), {})),
            ("largest file", [0, 1, 100, 512, 4096, 8192, 16384, 32768, 10**6],
             lambda n: (nothing, limited(resource.RLIMIT_FSIZE, n))),
        ]
        if not SANITIZED:
            # With seven the run is kept, without the load averages.
            kinds.append(("descriptors", [4, 5, 6, 8, 9],
                          lambda n: (nothing, limited(resource.RLIMIT_NOFILE, n))))
        yesterday = self.makeStateOf(2)
        for (what, amounts, limit), (start, files) in itertools.product(
                kinds, (("empty", {}), ("yesterday", yesterday))):
            kept = []
            for amount in amounts:
                with self.subTest(f"{what}: {amount}, {start}"):
                    prepared, options = limit(amount)
                    kept.append(self.checkStarved(files, prepared, **options))
            with self.subTest(f"{what}, {start}"):
                self.assertEqual(kept, sorted(kept), "more is no worse")
                self.assertEqual({False, True}, set(kept))

    def testDescriptorsThatAreNotThere(self):
        yesterday = self.makeStateOf(2)
        for redirection in ("<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-",
                            "2>/dev/full", "2</dev/null", "pipe"):
            with self.subTest(redirection):
                host.restore(yesterday)
                before = host.readState()
                words = (f"exec 2> >(:); wait $!; exec {host.VOLORND}" if redirection == "pipe"
                         else f"exec {host.VOLORND} {redirection}")
                self.runDaemon(["bash", "-c", words])
                self.checkRun(before, host.readState())

    def testModesUnderAnyMask(self):
        for mask in (0, 0o077, 0o777):
            with self.subTest(f"{mask:o}"):
                host.restore(None)
                self.runDaemon(umask=mask)
                modes = {path.name: path.stat().st_mode & 0o7777 for path in [host.STATE, *host.STATE.iterdir()]}
                self.assertEqual(modes, {"volorn": 0o755, "volorn.lock": 0o600, "volorn.db": 0o640,
                                         "volorn.db-journal": 0o640})


if __name__ == "__main__":
    host.main()
