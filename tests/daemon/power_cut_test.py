"""The power fails at every step of a run of volornd: whatever the disk then holds, the next run makes the best of it.

Real runs are recorded, call by call. After each call every file may hold, sector by sector, any of its contents since
it was last synced, torn sectors too, and each new entry of a folder that was not synced may be missing. Images of that
kind are opened by a run of the real daemon.

VOLORN_POWER_CUT_IMAGES says how many for each call; 40 take some minutes.
"""

import dataclasses
import os
import random
import re

import host

IMAGES = int(os.environ.get("VOLORN_POWER_CUT_IMAGES", "3"))
SECTOR = 512
FOLDERS = (str(host.LIB), str(host.STATE))
CALL = re.compile(
    r"^\d+ +(openat|write|pwrite64|fsync|fdatasync|rename(?:at)?|unlink(?:at)?|ftruncate|mkdir)\("
)
WORD = re.compile(r'(?:\d+|AT_FDCWD)<([^>]*)>|"([^"]*)"|(-?\b\d+)\b')


class Inode:
    def __init__(self, content=b""):
        self.versions = [
            content
        ]  # that the disk may hold; the first is what was synced, the last is the newest

    def sync(self):
        del self.versions[:-1]

    def change(self, offset, data):
        newest = self.versions[-1].ljust(offset, b"\0")
        self.versions.append(newest[:offset] + data + newest[offset + len(data) :])

    def truncate(self, size):
        self.versions.append(self.versions[-1].ljust(size, b"\0")[:size])

    def onDisk(self, chance):
        """One of the contents that a cut may leave."""
        if len(self.versions) == 1 or chance.random() < 0.25:
            return chance.choice(self.versions)
        size = len(chance.choice(self.versions))
        share_of_oldest = chance.choice([0, 0.2, 0.8])
        # What was never written to a new sector is zeros, or what the disk held there before.
        filler = chance.choice([bytes(SECTOR), chance.randbytes(SECTOR)])
        content = b""
        for start in range(0, size, SECTOR):
            sectors = [(version[start : start + SECTOR] + filler)[:SECTOR] for version in self.versions]
            first, second = (
                sectors[0] if chance.random() < share_of_oldest else chance.choice(sectors) for _ in range(2)
            )
            torn = chance.randrange(SECTOR) if chance.random() < 0.1 else SECTOR
            content += first[:torn] + second[torn:]
        return content[:size]


class Folder:
    """The state folder as the kernel shows it, and what of it a cut may leave."""

    def __init__(self, files, syncs=True):
        self.exists = self.exists_on_disk = files is not None
        self.synced = {name: Inode(content) for name, content in (files or {}).items()}
        self.entries = dict(self.synced)
        self.changes = []  # since the folder was synced: (name that goes, name that comes, inode)
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

    def take(self, name, *words):
        """One traced call: its paths, data and numbers, its result the last. False for one that changes nothing."""
        path = words[-1] if name == "openat" else words[0]
        folder, entry = os.path.split(path)
        if name == "mkdir":
            self.exists = self.exists or path == str(host.STATE)
        elif name.startswith(("rename", "unlink")):
            names = [
                os.path.basename(word) for word in words if isinstance(word, str) and word not in FOLDERS
            ]
            self.move(names[0], names[1] if name.startswith("rename") else None)
        elif path in FOLDERS:
            if name == "openat" or not self.syncs:
                return False
            if path == str(host.LIB):
                self.exists_on_disk = self.exists
            else:
                self.synced, self.changes = dict(self.entries), []
        elif folder != str(host.STATE):
            return False
        elif name == "openat":
            if entry in self.entries:
                return False
            self.move(None, entry, Inode())
        elif name in ("fsync", "fdatasync"):
            if self.syncs:
                self.entries[entry].sync()
        elif name == "pwrite64":
            self.entries[entry].change(words[3], words[1])
        elif name == "ftruncate":
            self.entries[entry].truncate(words[1])
        else:
            raise AssertionError(f"{name} of a file in the state folder")
        return True

    def move(self, gone, new, inode=None):
        inode = inode or self.entries.pop(gone)
        if new is not None:
            self.entries[new] = inode
        self.changes.append((gone, new, inode))


def parse(line):
    """A traced call that did not fail: its name, and its words as Folder.take() has them."""
    call = CALL.match(line)
    if not call or " = -1 " in line:
        return None
    assert '"...' not in line, "cut short by strace"
    words = []
    for path, text, number in WORD.findall(line[call.end() :]):
        plain = bytes.fromhex((path or text).replace("\\x", ""))
        words.append(int(number) if number else plain if "write" in call[1] and not path else plain.decode())
    return call[1], *words


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
        relevant = Folder(self.files)
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
    test.runDaemon(host.traced(["-y", "-xx", "-s", "65536", host.VOLORND]))
    calls = [call for call in map(parse, host.TRACE.read_text().splitlines()) if call]
    return Recording(what, files, calls, before, host.readState(), spoilt)


def openImage(where, image, recording, committed):
    """The next run on it."""
    test = host.Test()
    host.restore(image)
    log = test.runDaemon()
    state = host.readState()
    if state.snapshots == recording.after.snapshots:
        for name in ("nextPlannedWakeupTime", "lastLogDumpedDaySince1970"):
            test.assertEqual(state.preferences[name], recording.after.preferences[name])
        test.assertEqual(state.jobs, recording.after.jobs)
        test.assertIn(host.HAS_ONE, log)
    else:
        test.assertFalse(committed, "a day that was committed is lost")
        test.checkRun(recording.before, state)
    if recording.spoilt:
        test.assertIn(recording.spoilt, host.save().values())
    else:
        test.assertNotIn("state file", " ".join(log))
        test.assertEqual(list(host.STATE.glob("*damaged*")), [])


class PowerCutTest(host.Test):
    def recordings(self):
        yesterday = self.makeStateOf(2)
        host.restore(yesterday)
        self.runDaemon()
        host.age(2)
        host.editState(*host.TO_FIRST_VERSION)
        older = host.save()
        spoilt = yesterday["volorn.db"][:4096] + os.urandom(len(yesterday["volorn.db"]) - 4096)
        first = [
            record(self, "no folder", None),
            record(self, "empty folder", {}),
            record(self, "one day", yesterday),
            record(self, "upgrade", older),
            record(self, "damaged", {**yesterday, "volorn.db": spoilt}, spoilt),
        ]
        # A run that was cut off when all of it but the end of the transaction was on the disk, and is taken back.
        cut_off = Folder(older)
        calls = first[3].calls
        last_write = max(number for number, call in enumerate(calls) if call[0] == "pwrite64")
        for call in calls[:last_write]:
            cut_off.take(*call)
        files = {name: inode.versions[-1] for name, inode in cut_off.entries.items()}
        self.assertNotEqual(files["volorn.db-journal"][:8], bytes(8), "a journal to be rolled back")
        return [*first, record(self, "after a cut", files)]

    def testEveryImageACutMayLeave(self):
        recordings = self.recordings()
        for syncs in (True, False):
            tries = [
                (where, image, recording, committed)
                for recording in recordings
                for where, image, committed in recording.images(syncs, host.today())
            ]
            failures = [failure for _, failure in host.tryAll(openImage, tries) if failure]
            print(f"{len(tries)} images, {len(failures)} failures{'' if syncs else ' without syncs'}")
            if syncs:
                self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
                self.assertGreater(len(tries), 50 * IMAGES)
            else:
                self.assertGreater(len(failures), len(tries) // 20, "a simulator that proves nothing")


if __name__ == "__main__":
    host.main()
