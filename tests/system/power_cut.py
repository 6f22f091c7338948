"""What the disk may hold after the power has failed, of a folder whose changes were recorded call by call.

After each call every file may hold, sector by sector, any of its contents since it was last synced, torn sectors too,
and each new entry of a folder that was not synced may be missing.
"""

import os
import random
import re

import host

SECTOR = 512
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
    """A folder as the kernel shows it, and what of it a cut may leave."""

    def __init__(self, files, syncs=True, path=host.STATE):
        self.path, self.parent = str(path), str(path.parent)
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
        folders = (self.path, self.parent)
        path = words[-1] if name == "openat" else words[0]
        folder, entry = os.path.split(path)
        if name == "mkdir":
            self.exists = self.exists or path == self.path
        elif name.startswith(("rename", "unlink")):
            names = [
                os.path.basename(word) for word in words if isinstance(word, str) and word not in folders
            ]
            self.move(names[0], names[1] if name.startswith("rename") else None)
        elif path in folders:
            if name == "openat" or not self.syncs:
                return False
            if path == self.parent:
                self.exists_on_disk = self.exists
            else:
                self.synced, self.changes = dict(self.entries), []
        elif folder != self.path:
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


def tracedCalls():
    """Of the command that was run last under strace with TRACING."""
    return [call for call in map(parse, host.TRACE.read_text().splitlines()) if call]


TRACING = ("-y", "-xx", "-s", "65536")


def images(calls, files, attempts, seed, syncs=True, path=host.STATE):
    """Each as (what was cut where, files, whether the last transaction was committed)."""
    relevant = Folder(files, path=path)
    calls = [call for call in calls if relevant.take(*call)]
    committed = max(number for number, call in enumerate(calls) if call[0] == "fdatasync")
    folder = Folder(files, syncs, path)
    for number, call in enumerate(calls):
        folder.take(*call)
        seen = []
        for attempt in range(attempts):
            image = folder.onDisk(random.Random(f"{seed} {number} {attempt}"))
            if image not in seen:
                seen.append(image)
                yield f"cut after call {number} ({call[0]})", image, number >= committed
