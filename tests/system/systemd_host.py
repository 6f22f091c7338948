"""A machine with a booted systemd for tests, in namespaces of its own.

The machine's /usr, /etc and /var lie below overlays, and /dev, /run, /tmp and the control groups are new, so that
whatever is installed or set there is gone with the test. A test file ends with systemd_host.main(); its first
argument is the folder of the built programs. The file runs thrice: outside, where it makes the namespaces; as the
first process in them, which calls the file's prepare() and becomes systemd; and, once that is up, the tests.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import unittest

from host import waitFor

sys.dont_write_bytecode = True

BUILD = pathlib.Path(sys.argv[1]).resolve()
STAGE = "VOLORN_TEST_SYSTEMD"
MADE = "/media"  # where the new file systems are made; nothing of it is seen any more inside
OVERLAID = ("usr", "etc", "var")
SKIPPED = 77  # as CTest is told

# All that a boot starts besides what a test file enables: the machine's own services would touch the machine.
WANTED = {
    "dbus.service",
    "dbus.socket",
    "systemd-journald.service",
    "systemd-journald.socket",
    "systemd-journald-dev-log.socket",
}
UNITS = pathlib.Path("/lib/systemd/system")
ADMIN = pathlib.Path("/etc/systemd")

BOOT_SECONDS = 300


def run(*command, **options):
    """Its standard output; raises when it fails."""
    options = {"check": True, "stdout": subprocess.PIPE, "text": True, "stdin": subprocess.DEVNULL, **options}
    return subprocess.run(command, **options).stdout


def mount(kind, target, *options, source=None):
    pathlib.Path(target).mkdir(parents=True, exist_ok=True)
    run("mount", "-t", kind, *options, source or kind, str(target))


def makeDevices():
    mount("tmpfs", f"{MADE}/dev", "-o", "mode=755")
    for name in ("null", "zero", "full", "random", "urandom", "tty"):
        path = pathlib.Path(MADE, "dev", name)
        path.touch()
        run("mount", "--bind", f"/dev/{name}", str(path))
    mount("devpts", f"{MADE}/dev/pts", "-o", "newinstance,ptmxmode=666")
    mount("tmpfs", f"{MADE}/dev/shm")
    descriptors = {"fd": "", "stdin": "/0", "stdout": "/1", "stderr": "/2"}
    links = {"ptmx": "pts/ptmx", **{name: f"/proc/self/fd{end}" for name, end in descriptors.items()}}
    for name, target in links.items():
        pathlib.Path(MADE, "dev", name).symlink_to(target)
    run("mount", "--no-mtab", "--move", f"{MADE}/dev", "/dev")


def makeFileSystems():
    mount("tmpfs", MADE, "-o", "size=2g,mode=755")
    for name in OVERLAID:
        for part in ("upper", "work"):
            pathlib.Path(MADE, name, part).mkdir(parents=True)
        made = f"{MADE}/{name}"
        mount("overlay", f"/{name}", "-o", f"lowerdir=/{name},upperdir={made}/upper,workdir={made}/work")
    makeDevices()
    # Read-only, systemd leaves the machine's own settings alone.
    run("mount", "--bind", "/proc/sys", "/proc/sys")
    run("mount", "-o", "remount,bind,ro", "/proc/sys")
    mount("sysfs", "/sys", "-o", "ro")
    mount("cgroup2", "/sys/fs/cgroup")


def replace(path, text=None):
    """Text, or nothing at all: a unit or generator that is masked."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    if text is None:
        path.symlink_to("/dev/null")
    else:
        path.write_text(text)


def emptyTheMachine():
    """What the machine's administrator or its packages have started or left."""
    shutil.rmtree(ADMIN / "system", ignore_errors=True)
    for folder in UNITS.glob("*.target.wants"):
        for unit in folder.iterdir():
            if unit.suffix != ".target" and unit.name not in WANTED:
                replace(ADMIN / "system" / unit.name)
    for generator in pathlib.Path("/lib/systemd/system-generators").iterdir():
        replace(ADMIN / "system-generators" / generator.name)
    for unit in ("getty.target", "remote-fs.target"):
        replace(ADMIN / "system" / unit)
    replace(pathlib.Path("/etc/fstab"), "")
    replace(pathlib.Path("/etc/machine-id"), "0123456789abcdef0123456789abcdef\n")
    replace(
        ADMIN / "journald.conf.d/test.conf",
        "[Journal]\nStorage=volatile\nRateLimitIntervalSec=0\nForwardToSyslog=no\n",
    )
    # By which a container forbids packages to start anything.
    pathlib.Path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
    for path in ("/var/lib/volorn", "/var/log/journal"):
        shutil.rmtree(path, ignore_errors=True)


def coverTemporaryFolders():
    """Whatever of ours lies there stays visible."""
    ours = [str(pathlib.Path(__file__).parents[2]), str(BUILD)]
    for name, mode in (("tmp", "1777"), ("run", "755")):
        mount("tmpfs", f"{MADE}/{name}", "-o", f"mode={mode}")
        for folder in ours:
            if folder.startswith(f"/{name}/"):
                pathlib.Path(MADE + folder).mkdir(parents=True, exist_ok=True)
                run("mount", "--bind", folder, MADE + folder)
        run("mount", "--no-mtab", "--move", f"{MADE}/{name}", f"/{name}")


def becomeSystemd(prepare):
    makeFileSystems()
    emptyTheMachine()
    prepare()
    coverTemporaryFolders()
    # As whoever starts a container does: what systemd mounts for a service is made in a process of its own.
    run("mount", "--make-rshared", "/")
    os.environ["container"] = "unshare"
    words = "systemd --system --unit=multi-user.target --show-status=no --log-target=journal-or-kmsg"
    os.execv("/lib/systemd/systemd", words.split())


def controlGroupRoot():
    for line in open("/proc/self/mountinfo"):
        fields, _, source = line.partition(" - ")
        if source.startswith("cgroup2 "):
            return pathlib.Path(fields.split()[4])
    raise SystemExit("there is no cgroup2 mount to boot a systemd below")


def removeControlGroup(group):
    def removed():
        for folder, _, _ in os.walk(group, topdown=False):
            try:
                os.rmdir(folder)
            except OSError:  # its processes have not gone yet
                pass
        return not group.exists()

    waitFor(removed, seconds=60)


def boot(group):
    def enter():
        (group / "cgroup.procs").write_text(str(os.getpid()))

    words = "unshare --kill-child=KILL --fork --pid --mount --uts --ipc --net --cgroup --propagation private"
    return subprocess.Popen(
        [*words.split(), "--mount-proc", sys.executable, *sys.argv],
        env={**os.environ, STAGE: "boot"},
        stdin=subprocess.DEVNULL,
        preexec_fn=enter,
    )


def firstProcess(unshare):
    """Its number outside, once systemd answers in there."""
    inside = run("pgrep", "-P", str(unshare.pid), check=False).split()
    if not inside:
        return None
    asked = f"nsenter -t {inside[0]} -a systemctl is-system-running"
    state = run(*asked.split(), check=False, stderr=subprocess.DEVNULL)
    return inside[0] if state.strip() in ("running", "degraded") else None


def runInside():
    if os.geteuid() != 0:
        print("Only root can boot a systemd.")
        return SKIPPED
    group = controlGroupRoot() / f"volorn-test-{os.getpid()}"
    group.mkdir()
    unshare = boot(group)
    try:
        first = waitFor(lambda: unshare.poll() is not None or firstProcess(unshare), BOOT_SECONDS)
        if not isinstance(first, str):
            print("systemd does not come up")
            return 1
        inside = subprocess.run(
            ["nsenter", "-t", first, "-a", sys.executable, *sys.argv],
            env={**os.environ, STAGE: "booted"},
            stdin=subprocess.DEVNULL,
            check=False,
        )
        return inside.returncode
    finally:
        unshare.kill()
        unshare.wait()
        removeControlGroup(group)


def main(prepare):
    sys.argv[:2] = [os.path.abspath(sys.argv[0]), str(BUILD)]
    stage = os.environ.get(STAGE)
    if stage == "boot":
        becomeSystemd(prepare)
    if stage == "booted":
        sys.argv.pop(1)
        unittest.main()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that what was made is taken away
    sys.exit(runInside())
