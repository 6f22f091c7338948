"""Shows that a file system whose server has stopped answering holds up no reader of a program that it holds."""

import ctypes
import json
import os
import pathlib
import signal
import stat
import struct
import subprocess

import host

MS_NOSUID, MS_NODEV = 2, 4
LOOKUP, GETATTR, OPEN, READ, RELEASE, FLUSH, INIT = 1, 3, 14, 15, 18, 25, 26
ROOT, FILE = 1, 2
libc = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class Server:
    """The kernel's FUSE protocol, as far as one executable file in a folder needs it."""

    def __init__(self, folder, content):
        self.content = content
        self.device = os.open("/dev/fuse", os.O_RDWR)
        options = f"fd={self.device},rootmode=40000,user_id=0,group_id=0,allow_other"
        check(libc.mount(b"program", folder.encode(), b"fuse", MS_NOSUID | MS_NODEV, options.encode()))

    def attributes(self, node):
        mode = stat.S_IFDIR | 0o755 if node == ROOT else stat.S_IFREG | 0o755
        size = len(self.content) if node == FILE else 0
        return struct.pack(
            "=6Q10I", node, size, (size + 511) // 512, 0, 0, 0, 0, 0, 0, mode, 1, 0, 0, 0, 4096, 0
        )

    def answer(self, operation, node, request):
        if operation == INIT:
            return struct.pack("=4I2H2I2H8I", 7, 31, 65536, 0, 1, 1, 65536, 1, 16, 0, *[0] * 8)
        if operation == LOOKUP and request == b"program\0":
            return struct.pack("=4Q2I", FILE, 0, 3600, 3600, 0, 0) + self.attributes(FILE)
        if operation == GETATTR:
            return struct.pack("=Q2I", 3600, 0, 0) + self.attributes(node)
        if operation == OPEN:
            return struct.pack("=Q2I", 0, 0, 0)
        if operation == READ:
            offset, size = struct.unpack_from("=8xQI", request)
            return self.content[offset : offset + size]
        return b"" if operation in (RELEASE, FLUSH) else None

    def serve(self):
        while True:
            message = os.read(self.device, 1 << 20)
            _, operation, unique, node = struct.unpack_from("=IIQQ", message)
            payload = self.answer(operation, node, message[40:])
            error = 0 if payload is not None else -38  # ENOSYS
            payload = payload or b""
            try:
                os.write(self.device, struct.pack("=IiQ", 16 + len(payload), error, unique) + payload)
            except OSError:
                pass  # one that wants no answer


class HostileFileSystemTest(host.Test):
    def setUp(self):
        super().setUp()
        folder = str(host.LIB / "hostile")
        os.mkdir(folder)
        server = Server(folder, pathlib.Path("/bin/sh").read_bytes())
        self.addCleanup(libc.umount2, folder.encode(), 2)
        self.server = os.fork()
        if self.server == 0:
            try:
                server.serve()
            finally:
                os._exit(1)
        os.close(server.device)
        self.process = subprocess.Popen(
            [os.path.join(folder, "program"), "-c", "echo; read line"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self.addCleanup(self.process.communicate)
        self.addCleanup(os.waitpid, self.server, 0)
        self.addCleanup(os.kill, self.server, signal.SIGKILL)  # wakes whoever waits for it
        self.process.stdout.read(1)
        os.kill(self.server, signal.SIGSTOP)

    def runJson(self, *command):
        reader = subprocess.Popen([host.VOLORNCTL, *command, "--json"], stdout=subprocess.PIPE)
        try:
            output, _ = reader.communicate(timeout=600)
        except subprocess.TimeoutExpired:
            os.kill(self.server, signal.SIGKILL)  # one that waits for the file system cannot be killed itself
            reader.communicate()
            self.fail(f"{command} waits for the file system")
        self.assertEqual(reader.returncode, 0)
        return json.loads(output)

    def testNoReaderWaitsForIt(self):
        report = self.runJson("memory")
        row = next(row for row in report["processes"] if row["pid"] == self.process.pid)
        self.assertEqual((row["name"], row["uuid"]), ("program", "0" * 32))
        self.assertGreater(row["rpages"], 0)
        sample = self.runJson("top", "--count", "1")
        row = next(row for row in sample["processes"] if row["pid"] == self.process.pid)
        self.assertGreater(row["privateBytes"], 0)
        self.runJson("summary")


if __name__ == "__main__":
    host.main()
