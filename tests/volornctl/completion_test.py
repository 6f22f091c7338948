"""That what shells complete is what the program takes, by the program's own help."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import host

LOADERS = pathlib.Path(__file__).parents[2] / "packaging/completion"
ENVIRONMENT = {**os.environ, "PATH": f"{host.PROGRAMS}:{os.environ['PATH']}", "HOME": "/nonexistent"}
# As bash itself calls it, with the words in its arguments and the last of them to be completed.
BASH = """
compopt() { :; }
. "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
"$(complete -p volornctl | sed 's/.*-F \\([^ ]*\\).*/\\1/')"
printf '%s\\n' "${COMPREPLY[@]}"
"""
# The builtins that make completions are put aside, and what is asked of them is printed.
ZSH = """
compdef() { :; }
_arguments() { print -rl -- "$@"; state=${STATE:-}; return 1 }
_describe() { print -rl -- "${commands[@]}"; }
words=("$2") STATE=$3
source "$1"
true
"""


def run(*command):
    done = subprocess.run(
        command, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=ENVIRONMENT, check=True
    )
    assert done.stderr == "", done.stderr
    return done.stdout


def completed(*words):
    output = run("bash", "--norc", "-c", BASH, "bash", str(LOADERS / "volornctl.bash"), "volornctl", *words)
    return sorted(output.split())


def by_fish(line):
    output = run("fish", "--no-config", "-c", f"source {LOADERS}/volornctl.fish; complete -C '{line}'")
    return sorted(entry.partition("\t")[0] for entry in output.splitlines())


def help_of(*command):
    return run(host.VOLORNCTL, *command, "--help")


def options_in(text):
    return re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.MULTILINE)


COMMANDS = re.findall(r"^  (\w+)", help_of().partition("Subcommands:")[2], re.MULTILINE)
EVERYWHERE = options_in(help_of())


class CompletionTest(unittest.TestCase):
    def test_commands_and_options(self):
        self.assertIn("history", COMMANDS)
        self.assertNotIn("completion", COMMANDS)
        for words in ([""], ["--state-dir", "/", ""], ["--state-dir", "=", "/", ""]):
            self.assertEqual(completed(*words), sorted(COMMANDS + EVERYWHERE), words)
        self.assertEqual(by_fish("volornctl "), sorted(COMMANDS))
        described = run("zsh", "-fc", ZSH, "zsh", str(LOADERS / "volornctl.zsh"), "", "command")
        self.assertEqual(re.findall(r"^([a-z]+):", described, re.MULTILINE), COMMANDS)
        for command in COMMANDS:
            options = set(options_in(help_of(command)) + EVERYWHERE)
            self.assertEqual(set(completed(command, "")), options, command)
            self.assertEqual(set(completed("--state-dir", "/", command, "--json", "--")), options, command)
            self.assertEqual(set(by_fish(f"volornctl {command} --")) | {"--version"}, options)
            shown = run("zsh", "-fc", ZSH, "zsh", str(LOADERS / "volornctl.zsh"), command, "argument")
            self.assertLessEqual(options, set(re.findall(r"--[\w-]+", shown)), command)
        self.assertEqual(completed("hi"), ["history"])
        self.assertEqual(completed("bogus", "--j"), [])

    def test_values(self):
        orders = re.search(r"cpu unless told: (.*)", help_of("top"))[1].split(", ")
        self.assertEqual(completed("top", "--sort", ""), sorted(orders))
        self.assertEqual(completed("top", "-o", "="), sorted(orders))
        self.assertEqual(by_fish("volornctl top --sort "), sorted(orders))
        for order in orders:
            run(host.VOLORNCTL, "top", "--count", "1", "--sort", order)
        for words in (["--key", ""], ["--key", "="], ["--key", "=", ""]):
            self.assertEqual(completed("history", *words), sorted([*host.KEYS, "battery", "system", "times"]))
        self.assertEqual(completed("history", "--key", "=", "jet"), ["jetsamLevel"])
        self.assertEqual(completed("metrics", "--format", ""), ["openmetrics"])
        self.assertEqual(completed("history", "--format", ""), ["csv"])
        self.assertEqual(completed("history", "--limit", ""), [])

    def test_files_and_folders(self):
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "a b.prom").touch()
            (pathlib.Path(folder) / "sub").mkdir()
            self.assertEqual(completed("metrics", "--output", f"{folder}/s"), [f"{folder}/sub"])
            self.assertEqual(completed("metrics", "--output", f"{folder}/a"), [f"{folder}/a", "b.prom"])
            self.assertEqual(completed("status", "--state-dir", f"{folder}/"), [f"{folder}/sub"])
            self.assertEqual(by_fish(f"volornctl --state-dir {folder}/"), [f"{folder}/sub/"])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
