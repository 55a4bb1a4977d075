"""The progress line: on a terminal, with rate and time left, and nowhere else."""
import contextlib
import os
import subprocess
import time

from support import TOOL, ToolTest


class ProgressLine(ToolTest):
    def read_slowly(self, command, messages):
        with subprocess.Popen([TOOL, *command], cwd=self.folder, stderr=messages,
                              stdout=subprocess.PIPE) as tool:
            # Long enough for the next line, and more than a pipe holds.
            self.assertTrue(tool.stdout.read(1))
            time.sleep(0.4)
            tool.stdout.read()

    def shown_on_a_terminal(self, command):
        main, end = os.openpty()
        self.read_slowly(command, end)
        os.close(end)
        shown = b""
        with contextlib.suppress(OSError):  # the end of a terminal
            while piece := os.read(main, 65536):
                shown += piece
        os.close(main)
        return shown.decode()

    def test_rate_and_time_left(self):
        (self.source / "big").write_bytes(b"b" * 12_000_000)
        for number in range(1500):
            (self.source / f"{number}").touch()
        self.image("-N", "3000", size="32M")
        bar = r" \[#* *\] +\d+ %, \d+ s left, "
        for command, words in ((["extract", "image", "/big", "-o", "-"],
                                f"extract{bar}[\\d.]+MB, [\\d.]+[KM]B/s"),
                               (["catalog", "image"], f"catalog{bar}\\d+ files, \\d+/s")):
            shown = self.shown_on_a_terminal(command)
            self.assertRegex(shown, words)
            # The line is cleared in the end.
            self.assertTrue(shown.endswith("\r\033[K"), shown[-40:])
            with open(self.folder / "messages", "w+b") as messages:
                self.read_slowly(command, messages)
                self.assertEqual(messages.seek(0, os.SEEK_END), 0)
