"""A record when its recorder is killed, the power fails, or the disk is full: what was written before stays whole.

VOLORN_POWER_CUT_IMAGES says how many images for each call.
"""

import json
import os
import pathlib
import signal
import subprocess

import host
import power_cut

IMAGES = int(os.environ.get("VOLORN_POWER_CUT_IMAGES", "2"))
SCRIPTED = str(host.PROGRAMS / "record_a_scripted_machine")
FILE = host.STATE / "record.db"
PART = 12  # samples that a run adds
KEEP = 1 << 20


def recorder(samples=PART, keep=KEEP, processes=5):
    return [SCRIPTED, str(FILE), str(keep), str(samples), str(processes)]


def record(*arguments):
    status, _, errors = host.run(*recorder(*arguments))
    if (status, errors) != (0, ""):
        raise AssertionError(errors or status)


def replay():
    status, output, errors = host.run(host.VOLORNCTL, "top", "--replay", str(FILE), "--json")
    if (status, errors) != (0, ""):
        raise AssertionError(errors or status)
    return output.splitlines()


def newRecord():
    host.restore({})
    record()
    return replay()


def checkAfter(before, run, is_kept, is_whole):
    """The parts that were there, then all of the run that was cut off or nothing, then those of another."""
    record()
    lines = replay()
    parts = [lines[i : i + PART] for i in range(0, len(lines), PART)]
    if any(part != run for part in parts) or len(parts) not in (before + 1, before + 2):
        raise AssertionError(f"{len(lines)} samples in place of {before} parts and one or two")
    if is_kept and not is_whole(len(parts)):
        raise AssertionError("a part that was written is lost")


def tryKill(start, files, before, run, name, ordinal):
    host.restore(files)
    killed = host.killedAt(recorder(), name, ordinal)
    checkAfter(before, run, not killed, lambda parts: parts == before + 2)
    return killed


def tryImage(where, image, is_committed, before, run):
    host.restore(image)
    checkAfter(before, run, is_committed, lambda parts: parts == before + 2)


class RecordKeptTest(host.Test):
    def starts(self):
        """Files, how many parts they hold, and the lines of a run."""
        run = newRecord()
        self.assertEqual(len(run), PART)
        record()
        return [("no file", {}, 0, run), ("two parts", host.save(), 2, run)]

    def testKilledAtEveryCallOfWriting(self):
        kills = []
        for start in self.starts():
            host.restore(start[1])
            self.assertEqual(host.run(*host.traced(recorder()))[0], 0)
            names = "pwrite64|fdatasync|fsync|fcntl|fallocate|flock|ftruncate|unlink|fchown"
            kills += [(*start, *call) for call in host.tracedCalls(names)]
        results = host.tryAll(tryKill, kills)
        failures = [failure for _, failure in results if failure]
        self.assertEqual(len(failures), 0, "\n".join(failures[:3]))
        self.assertGreater(len([killed for killed, _ in results if killed]), 60)

    def testPowerCuts(self):
        tries = []
        for what, files, before, run in self.starts():
            host.restore(files)
            self.assertEqual(host.run(*host.traced([*power_cut.TRACING, *recorder()]))[0], 0)
            calls = power_cut.tracedCalls()
            for where, image, is_committed in power_cut.images(calls, files, IMAGES, what):
                tries.append((f"{what}, {where}", image, is_committed, before, run))
        failures = [failure for _, failure in host.tryAll(tryImage, tries) if failure]
        print(f"{len(tries)} images, {len(failures)} failures")
        self.assertEqual(len(failures), 0, "\n".join(failures[:3]))
        self.assertGreater(len(tries), 20 * IMAGES)

    def testAnHourOnAFullDisk(self):
        with host.mounted("-t", "tmpfs", "-o", "size=1M", "disk", str(host.LIB)):
            newRecord()
            record(240, 64 << 20, 10)
            others = host.LIB / "others"
            with open(others, "wb", buffering=0) as file, self.assertRaises(OSError):
                while file.write(b"\xff" * 4096):
                    pass
            record(720, 64 << 20, 10)
            lines = replay()
            self.assertGreater(len(lines), 200)
            hour = json.loads(lines[-1])["at"]
            self.assertEqual(hour, "2026-11-23T05:05:06.000Z", "the newest")

    def testSignalsWriteWhatIsHeld(self):
        for end in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            host.restore({})
            recorder = subprocess.Popen(
                [host.VOLORNCTL, "record", "--interval", "0.01", "--output", str(FILE)],
                stderr=subprocess.PIPE,
            )
            # It takes hold of its signals before it makes its files.
            self.assertTrue(host.waitFor(lambda: pathlib.Path(f"{FILE}-journal").exists()))
            recorder.send_signal(end)
            self.assertEqual((recorder.wait(), recorder.stderr.read()), (0, b""))
            recorder.stderr.close()
            replay()


if __name__ == "__main__":
    host.main()
