"""The manual: well-formed, and telling of every command, option and key that there is."""

import json
import pathlib
import re
import sys
import unittest

import host

PAGES = pathlib.Path(__file__).parents[2] / "docs/man"


class ManualTest(unittest.TestCase):
    def test_form(self):
        pages = sorted(PAGES.iterdir())
        names = [
            "volorn-keys.7",
            "volorn-push.8",
            "volorn-record.service.8",
            "volornctl-json.7",
            "volornctl.1",
            "volornd.8",
            "waketide.8",
        ]
        self.assertEqual([page.name for page in pages], names)
        for page in pages:
            for checker in ("mandoc -T lint -W warning", "groff -mandoc -ww -z"):
                self.assertEqual(host.run(*checker.split(), page), (0, "", ""))

    def test_commands_and_options(self):
        for name, section in (("volornctl", 1), ("waketide", 8)):
            program = str(host.PROGRAMS / name)
            page = (PAGES / f"{name}.{section}").read_text()
            text = host.run(program, "--help")[1]
            commands = re.findall(r"^  (\w+)", text.partition("Subcommands:")[2], re.MULTILINE)
            self.assertNotEqual(commands, [])
            for command in commands:
                self.assertRegex(page, rf"(?m)^\.It Cm {command}$")
                text += host.run(program, command, "--help")[1]
            for option in set(re.findall(r"^  (?:-\w,)?-(-[\w-]+)", text, re.MULTILINE)):
                self.assertRegex(page, rf"(?m)^\.It Fl (.* , )?{option}\b|^\.It .* Fl {option}\b")

    def test_fields(self):
        page = (PAGES / "volornctl-json.7").read_text()

        def names(value):
            items = value.items() if isinstance(value, dict) else [(None, item) for item in value[:1]]
            for name, inner in items:
                yield from [name] if name else []
                if isinstance(inner, (dict, list)) and name != "Process Stats":
                    yield from names(inner)

        for command in (["top", "-n", "1"], ["memory"], ["summary"]):
            for name in names(json.loads(host.run(host.VOLORNCTL, *command, "--json")[1])):
                shown = name.split("/")[0] + "/" if "/" in name else name
                self.assertRegex(page, rf"(?m)^\.(It )?(Va|Qq) (.* )?{re.escape(shown)}( |$)")

    def test_keys(self):
        page = (PAGES / "volorn-keys.7").read_text()
        self.assertEqual(re.findall(r"^\.It Cm (.*)", page, re.MULTILINE), host.KEYS)
        for field in ("gauge", "unit", "source", "missing"):
            self.assertEqual(page.count(f"\n.It {field}\n"), len(host.KEYS), field)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
