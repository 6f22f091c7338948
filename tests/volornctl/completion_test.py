"""That what bash completes is what the program takes, by the program's own help."""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

SCRIPT = pathlib.Path(__file__).parents[2] / "packaging/completion/volornctl.bash"
# As bash itself calls it, with the words in its arguments and the last of them to be completed.
CALL = """
compopt() { :; }
. "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
"$(complete -p volornctl | sed 's/.*-F \\([^ ]*\\).*/\\1/')"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def completed(*words):
    done = subprocess.run(["bash", "--norc", "-c", CALL, "bash", str(SCRIPT), "volornctl", *words], check=True,
                          text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert done.stderr == "", done.stderr
    return sorted(done.stdout.split())


def help_of(*command):
    return subprocess.run([host.VOLORNCTL, *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def options_in(text):
    return re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.MULTILINE)


COMMANDS = re.findall(r"^  (\w+)", help_of().partition("Subcommands:")[2], re.MULTILINE)


class CompletionTest(unittest.TestCase):
    def test_commands_and_options(self):
        everywhere = options_in(help_of())
        self.assertIn("history", COMMANDS)
        for words in ([""], ["--state-dir", "/", ""], ["--state-dir", "=", "/", ""]):
            self.assertEqual(completed(*words), sorted(COMMANDS + everywhere), words)
        for command in COMMANDS:
            options = sorted(set(options_in(help_of(command)) + everywhere))
            self.assertEqual(completed(command, ""), options, command)
            self.assertEqual(completed("--state-dir", "/", command, "--json", "--"), options, command)
        self.assertEqual(completed("hi"), ["history"])
        self.assertEqual(completed("bogus", "--j"), [])

    def test_values(self):
        orders = re.search(r"What has most first: (.*)", help_of("top"))[1]
        self.assertEqual(completed("top", "--sort", ""), sorted(re.sub(r" \(.*?\)", "", orders).split(", ")))
        for order in completed("top", "--sort", ""):
            subprocess.run([host.VOLORNCTL, "top", "--count", "1", "--sort", order], check=True,
                           stdout=subprocess.DEVNULL)
        keys = sorted(host.KEYS)
        for words in (["--key", ""], ["--key", "="], ["--key", "=", ""]):
            self.assertEqual(completed("history", *words), keys)
        self.assertEqual(completed("history", "--key", "=", "jet"), ["jetsamLevel"])
        self.assertEqual(completed("metrics", "--format", "o"), ["openmetrics"])
        self.assertEqual(completed("history", "--limit", ""), [])

    def test_files_and_folders(self):
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "a b.prom").touch()
            (pathlib.Path(folder) / "sub").mkdir()
            self.assertEqual(completed("metrics", "--output", f"{folder}/s"), [f"{folder}/sub"])
            self.assertEqual(completed("metrics", "--output", f"{folder}/a"), [f"{folder}/a", "b.prom"])
            self.assertEqual(completed("status", "--state-dir", f"{folder}/"), [f"{folder}/sub"])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
