"""The manual: well-formed, and telling of every command, option and key that there is."""

import pathlib
import re
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

PAGES = pathlib.Path(__file__).parents[2] / "docs/man"


def help_of(*command):
    return subprocess.run([*command, "--help"], check=True, text=True, stdout=subprocess.PIPE).stdout


class ManualTest(unittest.TestCase):
    def test_form(self):
        pages = sorted(PAGES.iterdir())
        self.assertEqual([page.name for page in pages], ["volorn-keys.7", "volornctl.1", "volornd.8", "waketide.8"])
        for page in pages:
            for checker in (["mandoc", "-T", "lint", "-W", "warning"], ["groff", "-mandoc", "-ww", "-z"]):
                done = subprocess.run([*checker, str(page)], text=True, stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, check=False)
                self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_commands_and_options(self):
        for name, section in (("volornctl", 1), ("waketide", 8)):
            program = str(host.PROGRAMS / name)
            page = (PAGES / f"{name}.{section}").read_text()
            text = help_of(program)
            commands = re.findall(r"^  (\w+)", text.partition("Subcommands:")[2], re.MULTILINE)
            self.assertNotEqual(commands, [])
            for command in commands:
                self.assertRegex(page, rf"(?m)^\.It Cm {command}$")
                text += help_of(program, command)
            for option in set(re.findall(r"^  (?:-\w,)?-(-[\w-]+)", text, re.MULTILINE)):
                self.assertRegex(page, rf"(?m)^\.It Fl (.* , )?{option}\b|^\.It .* Fl {option}\b")

    def test_keys(self):
        page = (PAGES / "volorn-keys.7").read_text()
        self.assertEqual(re.findall(r"^\.It Cm (.*)", page, re.MULTILINE), host.KEYS)
        for field in ("gauge", "unit", "source", "missing"):
            self.assertEqual(page.count(f"\n.It {field}\n"), len(host.KEYS), field)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
