"""A device in an emulator: its power, its plug, its clock and its disk are in our hands."""

import base64
import json
import mmap
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import tempfile
import time

PAGE = 0x0F000000  # where the tables of the laptop look for its values
FIELDS = "seq plug temp there0 state0 now0 full0 there1 state1 now1 full1".split()
MEMORY = 512 << 20
ANSWER_SECONDS = 600  # of the machine that emulates, which others keep busy, too

# A millisecond of the guest is this many of its instructions, however slow they are emulated here; what it waits for
# takes as long as it does.
INSTRUCTIONS = ["-icount", "shift=1,sleep=on"]


class Lines:
    """A socket on which each line is JSON."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        deadline = time.monotonic() + 60
        while self.socket.connect_ex(str(path)):
            assert time.monotonic() < deadline, f"nobody at {path}"
            time.sleep(0.05)
        self.socket.settimeout(ANSWER_SECONDS)
        self.file = self.socket.makefile("rw", buffering=1)

    def send(self, message):
        self.file.write(json.dumps(message) + "\n")

    def next(self):
        line = self.file.readline()
        assert line, "the emulator has ended"
        return json.loads(line)


class Machine:
    def __init__(self, lab, disk, at, log, *, instructions=True, blocks=None, words=""):
        """Switched on at `at` with the file `disk`; `blocks` are arguments for another way to the same disk."""
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="volorn-lab-", dir="/dev/shm"))
        memory = self.folder / "memory"
        with open(memory, "wb") as file:
            file.truncate(MEMORY)
        command = [
            *("qemu-system-x86_64", "-M", "q35", "-cpu", "qemu64", "-acpitable", f"file={lab}/laptop.aml"),
            *("-accel", "tcg", "-smp", "1", "-nodefaults", "-display", "none", "-no-reboot"),
            *("-m", str(MEMORY >> 20), "-machine", "memory-backend=ram"),
            *("-object", f"memory-backend-file,id=ram,size={MEMORY},mem-path={memory},share=on"),
            *("-kernel", str(lab / "vmlinuz"), "-initrd", str(lab / "initrd")),
            *("-rtc", f"base={time.strftime('%Y-%m-%dT%H:%M:%S', time.gmtime(at))},clock=host"),
            *("-chardev", f"file,id=console,path={log},append=on", "-serial", "chardev:console"),
            *("-device", "virtio-serial-pci"),
            *("-chardev", f"socket,id=agent,path={self.folder}/agent,server=on,wait=off"),
            *("-device", "virtserialport,chardev=agent,name=lab"),
            *("-qmp", f"unix:{self.folder}/qmp,server=on,wait=off"),
            *(blocks or ["-drive", f"file={disk},format=raw,if=none,id=disk,cache=unsafe"]),
            *("-device", "virtio-blk-pci,drive=disk"),
            *(INSTRUCTIONS if instructions else []),
        ]
        words = f"console=ttyS0 loglevel=4 panic=-1 mitigations=off apparmor=0 cryptomgr.notests memmap=4K${PAGE:#x}"
        self.memory = mmap.mmap(os.open(memory, os.O_RDWR), 4096, offset=PAGE)
        self.values = dict.fromkeys(FIELDS, 0)
        self.set(plug=1, temp=kelvin(40), there0=1, state0=2, now0=30_000, full0=50_000)
        self.emulator = subprocess.Popen([*command, "-append", words], stdin=subprocess.DEVNULL)
        self.agent = Lines(self.folder / "agent")
        self.monitor = Lines(self.folder / "qmp")
        self.monitor.next()
        self.tell("qmp_capabilities")

    def cut(self):
        """The power."""
        self.emulator.kill()
        self.emulator.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def tell(self, command, **arguments):
        self.monitor.send({"execute": command, "arguments": arguments})
        while "return" not in (answer := self.monitor.next()):
            assert "error" not in answer, answer
        return answer["return"]

    def set(self, **values):
        """What stands in the page; the kernel hears of it at the next look at the thermal zone."""
        self.values.update(values)
        self.values["seq"] += 1
        self.memory[: 4 * len(FIELDS)] = struct.pack(f"<{len(FIELDS)}I", *self.values.values())

    def start(self, command):
        self.agent.file.write(base64.b64encode(command.encode()).decode() + "\n")

    def ended(self):
        answer = self.agent.next()
        output = base64.b64decode(answer["output"]).decode(errors="replace")
        assert answer["status"] == 0, f"{answer['status']}: {output}"
        return output

    def run(self, command):
        """What it prints; it is to succeed."""
        self.start(command)
        return self.ended()


def kelvin(celsius):
    """In tenths, as the zone tells them."""
    return round(10 * celsius + 2732)
