"""The built programs under valgrind: daily runs without a state, on one and on a spoilt one, and every look at
processes."""

import host

# Memory that is still at hand at the end is none that was lost: the C++ library keeps some for exceptions.
LOST = "definite,indirect,possible"
VALGRIND = f"valgrind --quiet --error-exitcode=9 --leak-check=full --show-leak-kinds={LOST} --errors-for-leak-kinds={LOST}"


class ValgrindTest(host.Test):
    def testDailyRuns(self):
        command = [*VALGRIND.split(), host.VOLORND]
        self.assertEqual(self.runDaemon(command), host.NEW)
        self.checkRun(host.State(), host.readState())
        host.age(2)
        before = host.readState()
        self.assertEqual(self.runDaemon(command), host.LATE)
        self.checkRun(before, host.readState())
        host.FILE.write_bytes(b"no database" * 1000)
        self.runDaemon(command)
        self.checkRun(host.State(), host.readState())

    def testReaders(self):
        self.runDaemon()
        for command in ("summary", "memory", "top --json --count 2 --interval 0.1"):
            status, _, errors = host.run(*VALGRIND.split(), host.VOLORNCTL, *command.split())
            self.assertEqual((status, errors), (0, ""), command)


if __name__ == "__main__":
    # Of the few processes of a namespace of its own: each is read many times as slowly.
    host.main("--pid", "--fork", "--kill-child=KILL", "--mount-proc")
