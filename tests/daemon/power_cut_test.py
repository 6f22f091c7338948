"""The power fails at every step of a run of volornd: whatever the disk then holds, the next run makes the best of it.

Real runs are recorded, call by call. After each call every file may hold, sector by sector, any of its contents since
it was last synced, torn sectors too, and each new entry of a folder that was not synced may be missing. Images of that
kind are opened by a run of the real daemon.

VOLORN_POWER_CUT_IMAGES says how many for each call; 40 take some minutes.
"""

import dataclasses
import multiprocessing
import os
import pathlib
import random
import re
import sys
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

IMAGES = int(os.environ.get("VOLORN_POWER_CUT_IMAGES", "2"))
SECTOR = 512
TRACE = host.LIB / "trace"
CALLS = "openat,close,write,pwrite64,fsync,fdatasync,rename,renameat,unlink,unlinkat,ftruncate,fallocate,mkdir"
CALL = re.compile(r"^(\w+)\((.*)\) += (-?\d+)")
ARGUMENT = re.compile(r' *(?:"((?:\\x[0-9a-f]{2})*)"(\.\.\.)?|[^,]+)')


class Inode:
    def __init__(self, content=b""):
        self.versions = [content]  # that the disk may hold; the first is what was synced, the last is the newest

    def sync(self):
        del self.versions[:-1]

    def change(self, offset, data):
        newest = self.versions[-1].ljust(offset, b"\0")
        self.versions.append(newest[:offset] + data + newest[offset + len(data):])

    def truncate(self, size):
        self.versions.append(self.versions[-1].ljust(size, b"\0")[:size])

    def onDisk(self, chance):
        """One of the contents that a cut may leave."""
        versions = self.versions
        if len(versions) == 1:
            return versions[0]
        manner = chance.choice(["a moment", "mostly old", "mostly new", "anything"])
        if manner == "a moment":
            return chance.choice(versions)
        size = len(chance.choice(versions))
        # What was never written to a new sector is zeros, or what the disk held there before.
        filler = chance.choice([bytes(SECTOR), chance.randbytes(SECTOR)])
        content = bytearray()
        for start in range(0, size, SECTOR):
            contents = [version[start:start + SECTOR] for version in versions]
            if manner == "anything" or chance.random() < 0.2:
                sector = chance.choice(contents)
            else:
                sector = contents[0 if manner == "mostly old" else -1]
            sector += filler[len(sector):]
            if chance.random() < 0.1:
                other = chance.choice(contents)
                torn = chance.randrange(SECTOR)
                sector = sector[:torn] + (other + filler[len(other):])[torn:]
            content += sector
        return bytes(content[:size])


class Folder:
    """The state folder as the kernel shows it, and what of it a cut may leave."""

    def __init__(self, files, syncs):
        self.exists = self.exists_on_disk = files is not None
        self.synced = {name: Inode(content) for name, content in (files or {}).items()}
        self.entries = dict(self.synced)
        self.changes = []  # since the folder was synced: (name that goes, name that comes, inode)
        self.opened = {}  # descriptor: inode, or the path of a folder
        self.syncs = syncs  # False for the control, which takes no heed of them

    def onDisk(self, chance):
        if not self.exists or not (self.exists_on_disk or chance.random() < 0.5):
            return None
        entries = dict(self.synced)
        likely = chance.choice([0, 0.5, 1])
        for gone, new, inode in self.changes:
            if chance.random() < likely:
                if gone is not None and entries.get(gone) is inode:
                    del entries[gone]
                if new is not None:
                    entries[new] = inode
        return {name: inode.onDisk(chance) for name, inode in entries.items()}

    def take(self, name, arguments, result):
        """One traced call. False for one that has nothing to do with the folder."""
        if name == "mkdir":
            self.exists = self.exists or arguments[0] == str(host.STATE)
        elif name == "openat":
            self.open(arguments, result)
        elif name == "close":
            self.opened.pop(arguments[0], None)
            return False
        elif name in ("rename", "renameat", "unlink", "unlinkat"):
            names = [os.path.basename(each) for each in arguments if isinstance(each, str)]
            self.move(names[0], names[1] if name.startswith("rename") else None)
        elif arguments[0] not in self.opened:
            return False
        else:
            self.change(name, arguments)
        return True

    def open(self, arguments, descriptor):
        path = os.path.join(str(host.STATE), arguments[1].rstrip("/") or "/")  # a bare name is the folder's
        if path in (str(host.STATE), str(host.LIB)):
            self.opened[descriptor] = path
        elif os.path.dirname(path) == str(host.STATE):
            name = os.path.basename(path)
            if name not in self.entries:
                self.move(None, name, Inode())
            self.opened[descriptor] = self.entries[name]

    def move(self, gone, new, inode=None):
        inode = inode or self.entries.pop(gone)
        if new is not None:
            self.entries[new] = inode
        self.changes.append((gone, new, inode))

    def change(self, name, arguments):
        target = self.opened[arguments[0]]
        if name in ("fsync", "fdatasync"):
            if not self.syncs:
                return
            if target == str(host.LIB):
                self.exists_on_disk = self.exists
            elif target == str(host.STATE):
                self.synced, self.changes = dict(self.entries), []
            else:
                target.sync()
        elif name == "pwrite64":
            target.change(arguments[3], arguments[1])
        elif name == "ftruncate":
            target.truncate(arguments[1])
        elif name != "fallocate":
            raise AssertionError(f"{name} of a file in the state folder")


def parse(line):
    """A traced call as (name, arguments, result): paths as text, data as bytes, numbers; None for one that failed."""
    match = CALL.match(line)
    if not match or int(match[3]) < 0:
        return None
    name, arguments = match[1], []
    for argument in ARGUMENT.finditer(match[2]):
        text = argument[0].strip()
        if argument[1] is not None:
            assert not argument[2], "cut short by strace"
            data = bytes.fromhex(argument[1].replace("\\x", ""))
            arguments.append(data if "write" in name else data.decode())
        elif text.lstrip("-").isdigit():
            arguments.append(int(text))
        elif text:
            arguments.append(None)
    return name, arguments, int(match[3])


@dataclasses.dataclass
class Recording:
    what: str
    files: dict  # that the run found
    calls: list
    before: host.State
    after: host.State
    spoilt: bytes = None  # the state file, when it is one to be set aside

    def images(self, syncs, seed):
        """Each as (what was cut where, files, whether the run was committed)."""
        relevant = Folder(self.files, True)
        calls = [call for call in self.calls if relevant.take(*call)]
        committed = max(number for number, call in enumerate(calls) if call[0] == "fdatasync")
        folder = Folder(self.files, syncs)
        for number, call in enumerate(calls):
            folder.take(*call)
            seen = []
            for attempt in range(IMAGES if syncs else IMAGES // 10 + 1):
                chance = random.Random(f"{seed} {self.what} {number} {attempt}")
                image = folder.onDisk(chance)
                if image not in seen:
                    seen.append(image)
                    yield f"{self.what}, cut after call {number} ({call[0]})", image, number >= committed


def record(test, what, files, spoilt=None):
    host.restore(files)
    before = host.State() if spoilt else host.readState()
    host.restore(files)  # as it was before what reading it may have rolled back
    test.runDaemon(["strace", "-xx", "-s", "65536", "-e", f"trace={CALLS}", "-o", str(TRACE), host.VOLORND])
    calls = [call for call in map(parse, TRACE.read_text().splitlines()) if call]
    return Recording(what, files, calls, before, host.readState(), spoilt)


def openImage(recording, where, image, committed):
    """What went wrong with the next run, as text; None when nothing did."""
    test = host.Test()
    try:
        host.restore(image)
        log = test.runDaemon()
        state = host.readState()
        if state.snapshots == recording.after.snapshots:
            for name in ("nextPlannedWakeupTime", "lastLogDumpedDaySince1970"):
                test.assertEqual(state.preferences[name], recording.after.preferences[name])
            test.assertEqual(state.jobs, recording.after.jobs)
            test.assertIn("already dumped today!!", log)
        else:
            test.assertFalse(committed, "a day that was committed is lost")
            dropped = len(recording.before.snapshots) + 1 - len(recording.after.snapshots)
            before = dataclasses.replace(recording.before, snapshots=recording.before.snapshots[dropped:])
            test.checkRun(before, state)
        if recording.spoilt:
            test.assertIn(recording.spoilt, host.save().values())
        else:
            test.assertNotIn("state file", " ".join(log))
            test.assertEqual(list(host.STATE.glob("*damaged*")), [])
        return None
    except Exception:
        return f"{where}:\n{traceback.format_exc()}"


class PowerCutTest(host.Test):
    def recordings(self):
        yesterday = self.makeStateOf(2)
        host.restore(yesterday)
        self.runDaemon()
        metrics = "SELECT {0}, position, key_id, value FROM metric WHERE snapshot_id = 2"
        for number in range(3, 33):
            host.editState(f"INSERT INTO snapshot VALUES ({number}, {number})",
                           f"INSERT INTO metric {metrics.format(number)}")
        host.age(2)
        month = host.save()
        # The newest of them is the last that the oldest ten live to see.
        host.editState("PRAGMA foreign_keys = OFF", "UPDATE snapshot SET id = 4009 WHERE id = 32",
                       "UPDATE metric SET snapshot_id = 4009 WHERE snapshot_id = 32")
        many = host.save()
        spoilt = yesterday["volorn.db"][:4096] + os.urandom(len(yesterday["volorn.db"]) - 4096)
        first = [record(self, "no folder", None), record(self, "empty folder", {}),
                 record(self, "one day", yesterday), record(self, "a month", month),
                 record(self, "the oldest go", many),
                 record(self, "damaged", {**yesterday, "volorn.db": spoilt}, spoilt)]
        # A run that was cut off when all of it but the end of the transaction was on the disk, and is taken back.
        cut_off = Folder(month, True)
        calls = first[3].calls
        last_write = max(number for number, call in enumerate(calls) if call[0] == "pwrite64")
        for call in calls[:last_write]:
            cut_off.take(*call)
        files = {name: inode.versions[-1] for name, inode in cut_off.entries.items()}
        self.assertNotEqual(files["volorn.db-journal"][:8], bytes(8), "a journal to be rolled back")
        return [*first, record(self, "after a cut", files)]

    def testEveryImageACutMayLeave(self):
        recordings = self.recordings()
        self.assertEqual(len(recordings[4].after.snapshots), len(recordings[4].before.snapshots) + 1 - 10)
        for syncs in (True, False):
            tries = [(recording, *image) for recording in recordings for image in recording.images(syncs, host.today())]
            with multiprocessing.Pool(os.cpu_count(), host.enterOwnLib) as pool:
                failures = [failure for failure in pool.starmap(openImage, tries, chunksize=16) if failure]
            print(f"{len(tries)} images, {len(failures)} failures{'' if syncs else ' without syncs'}")
            if syncs:
                self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
                self.assertGreater(len(tries), 50 * IMAGES)
            else:
                self.assertGreater(len(failures), len(tries) // 20, "a simulator that proves nothing")


if __name__ == "__main__":
    host.main()
