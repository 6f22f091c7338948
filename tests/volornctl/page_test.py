"""The page of a report in a browser: what it asks for, complains of and prints, and who can read it."""

import os
import pathlib
import re
import resource
import subprocess
import sys
import tempfile
import unittest

PROGRAM = os.path.abspath(os.path.join(sys.argv.pop(1), "volornctl"))
SAMPLE_STATE = pathlib.Path(__file__).parents[2] / "scripts/sample-state"
# The file axe.min.js of axe-core, which Debian does not have: scripts/torture accessibility fetches it.
AXE = os.environ.get("VOLORN_AXE")

BROWSER = "chromium --headless --no-sandbox --disable-gpu --enable-logging=stderr".split()
MAKERS = (".google.com", ".googleapis.com", ".gvt1.com")

RUN_AXE = """<script>%s</script><script>axe.run().then(found => {
  document.title = "violations: " + JSON.stringify(found.violations.map(v => [v.id, v.nodes[0].html]));
});</script>"""


class PageTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.page = self.folder / "report.html"

    def report(self, days):
        state = self.folder / str(days)
        state.mkdir()
        subprocess.run([SAMPLE_STATE, state, "--days", str(days)], check=True)
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run([PROGRAM, "report", "--output", self.page, "--state-dir", state], check=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime

    def browse(self, *options, page=None):
        """What it prints, with the complaints of the page itself."""
        command = [*BROWSER, f"--user-data-dir={self.folder}/profile", *options, (page or self.page).as_uri()]
        done = subprocess.run(command, capture_output=True, text=True, timeout=300, check=True)
        self.assertEqual([line for line in done.stderr.splitlines() if "CONSOLE" in line], [])
        return done.stdout

    def test_eleven_years(self):
        self.assertLess(self.report(4300), 0.5)
        self.assertLess(self.page.stat().st_size, 1 << 20)
        text = self.page.read_text()
        self.assertEqual(text.count("<figure>"), 14)
        self.assertNotIn(str(self.folder), text)
        self.assertEqual(set(re.findall(r"(?:src|href)=\S+|url\(|@import|<script", text)), {'href="data:,">'})

        log = self.folder / "net.json"
        shot = self.folder / "page.png"
        self.browse(f"--log-net-log={log}", "--window-size=500,900", f"--screenshot={shot}")
        self.assertGreater(shot.stat().st_size, 10_000)
        asked = re.findall(r'"url":"https?://([^/:"]*)', log.read_text())
        # The browser asks its maker for its own sake.
        self.assertEqual([host for host in asked if not host.endswith(MAKERS)], [])

        pages = self.folder / "page.pdf"
        self.browse("--no-pdf-header-footer", f"--print-to-pdf={pages}")
        count = len(re.findall(rb"/Type\s*/Page\b", pages.read_bytes()))
        self.assertIn(count, (1, 2, 3))

    def test_accessibility(self):
        for days in (1, 4300):
            self.report(days)
            # The page forbids every script, ours as well.
            text = re.sub(r"<meta http-equiv=[^>]*>", "", self.page.read_text()).replace(
                "<details>", "<details open>"
            )
            checked = self.folder / "checked.html"
            checked.write_text(text.replace("</body>", RUN_AXE % pathlib.Path(AXE).read_text() + "</body>"))
            for scheme in (0, 1):
                look = f"--blink-settings=preferredColorScheme={scheme}"
                shown = self.browse("--dump-dom", "--virtual-time-budget=60000", look, page=checked)
                self.assertEqual(re.search(r"<title>(.*?)</title>", shown)[1], "violations: []", look)


if AXE is None:
    del PageTest.test_accessibility

if __name__ == "__main__":
    unittest.main()
