"""What is installed where: by Alpine's recipe, by Yocto's, and in folders of one's own."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]

MANUALS = (
    "man1/volornctl.1 man7/volorn-keys.7 man7/volornctl-json.7 man8/volorn-push.8 "
    "man8/volorn-record.service.8 man8/volornd.8 man8/waketide.8"
).split()
SHELLS = (
    "bash-completion/completions/volornctl zsh/site-functions/_volornctl "
    "fish/vendor_completions.d/volornctl.fish"
).split()
ENABLED = "volorn.service volorn-guard.timer volorn-note-boot.service volorn-note-sleep.service".split()
UNITS = [*ENABLED, "volorn-arm.service", "volorn-guard.service", "volorn-note.service"]
UNITS += ["volorn-push.service", "volorn-push.timer", "volorn-record.service"]

ALPINE = (
    '. packaging/alpine/APKBUILD; cmake() { [ "$1" != -B ] || printf "%s\\n" "$@"; }; build; echo $pkgver'
)
YOCTO_FOLDERS = {
    "nonarch_base_libdir": "/lib",
    "nonarch_libdir": "/usr/lib",
    "systemd_system_unitdir": "/lib/systemd/system",
}
OWN_FOLDERS = """
-DCMAKE_INSTALL_PREFIX=/opt/v -DCMAKE_INSTALL_BINDIR=b -DCMAKE_INSTALL_SBINDIR=s/b -DCMAKE_INSTALL_DATADIR=d
-DCMAKE_INSTALL_MANDIR=/m -DCMAKE_INSTALL_SYSCONFDIR=/e -DVOLORN_SYSTEMD_UNIT_DIR=/u -DVOLORN_UDEV_RULES_DIR=r
-DVOLORN_SYSUSERS_DIR=/y -DVOLORN_OPENRC=ON -DVOLORN_TESTS=OFF
"""


def run(*command, **options):
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode != 0:
        raise AssertionError(done.stdout)
    return done.stdout


class InstallTest(unittest.TestCase):
    maxDiff = None

    def checkInstalled(self, options, bindir, sbindir, share, man, others):
        scratch = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        told = run("cmake", "-B", scratch / "build", "-S", ROOT, *options)
        self.assertNotIn("not used by the project", told)
        for name in ("volornd", "waketide", "volornctl"):
            (scratch / "build" / name).touch()
        target = scratch / "target"
        run("cmake", "--install", scratch / "build", env={**os.environ, "DESTDIR": str(target)})
        expected = [f"{sbindir}/{name}" for name in ("volornd", "volorn-push", "waketide")]
        expected += [f"{bindir}/volornctl", *others]
        expected += [f"{share}/{path}" for path in SHELLS] + [f"{man}/{page}" for page in MANUALS]
        files = {str(path)[len(str(target)) :]: path for path in target.rglob("*") if not path.is_dir()}
        self.assertEqual(sorted(files), sorted(expected))
        for path in files.values():
            text = path.read_text()
            starts = re.findall(r"(/\S*|@\S*)/(?:waketide|volornd|volorn-push)(?=[\s\"])", text)
            starts += [sbindir] * text.count(f"ExecStart={bindir}/volornctl record ")
            if path.suffix == ".service" or path.parent.name == "init.d":
                self.assertEqual(set(starts), {sbindir}, path)

    def testAlpine(self):
        *options, version = run("sh", "-euc", ALPINE, cwd=ROOT).splitlines()
        self.assertIn(f"project(volorn VERSION {version} ", (ROOT / "CMakeLists.txt").read_text())
        self.checkInstalled(
            options[2:], "/usr/bin", "/usr/sbin", "/usr/share", "/usr/share/man", ["/etc/init.d/volorn"]
        )

    def testYocto(self):
        recipe = ROOT / f"packaging/yocto/volorn_{run('sh', '-euc', ALPINE, cwd=ROOT).split()[-1]}.bb"
        text = re.sub(r"\$\{(\w+)\}", lambda name: YOCTO_FOLDERS.get(name[1], name[0]), recipe.read_text())
        options = re.search(r'EXTRA_OECMAKE = "(.*?)"\n', text, re.DOTALL)[1].replace("\\\n", "").split()
        others = [f"/lib/systemd/system/{unit}" for unit in UNITS]
        others += ["/lib/udev/rules.d/60-volorn.rules", "/usr/lib/sysusers.d/volorn.conf"]
        others.append("/usr/lib/sysusers.d/volorn-record.conf")
        self.checkInstalled(
            ["-DCMAKE_INSTALL_PREFIX=/usr", "-DVOLORN_SYSTEMD=ON", *options],
            "/usr/bin",
            "/usr/sbin",
            "/usr/share",
            "/usr/share/man",
            others,
        )
        self.assertIn(f'SYSTEMD_SERVICE:${{PN}} = "{" ".join(ENABLED)}"', text)

    def testFoldersOfOnesOwn(self):
        others = [
            "/e/init.d/volorn",
            "/opt/v/r/60-volorn.rules",
            "/y/volorn.conf",
            "/y/volorn-record.conf",
            *(f"/u/{unit}" for unit in UNITS),
        ]
        self.checkInstalled(OWN_FOLDERS.split(), "/opt/v/b", "/opt/v/s/b", "/opt/v/d", "/m", others)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
