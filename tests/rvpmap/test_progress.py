"""The progress line: on a terminal, with rate and time left, and nowhere else."""
import os
import re
import subprocess
import time

from support import TOOL, ToolTest


class ProgressLine(ToolTest):
    def standard_error_on_a_terminal(self, *arguments, slow_reader=False):
        main, end = os.openpty()
        with subprocess.Popen([TOOL, *arguments], cwd=self.folder, stderr=end,
                              stdout=subprocess.PIPE) as tool:
            os.close(end)
            if slow_reader:
                # Long enough for the next line, and more than a pipe holds.
                self.assertTrue(tool.stdout.read(1))
                time.sleep(0.4)
            tool.stdout.read()
        self.assertEqual(tool.returncode, 0)
        text = b""
        while True:
            try:
                piece = os.read(main, 65536)
            except OSError:
                break
            if not piece:
                break
            text += piece
        os.close(main)
        return text.decode()

    def test_rate_and_time_left(self):
        (self.source / "big").write_bytes(b"b" * 12_000_000)
        for number in range(1500):
            (self.source / f"{number}").touch()
        self.image("-N", "3000", size="32M")
        bar = r" \[#* *\] +\d+ %, \d+ s left, "
        for command, words in ((["extract", "image", "/big", "-o", "-"],
                                f"extract{bar}[\\d.]+MB, [\\d.]+[KM]B/s"),
                               (["catalog", "image"], f"catalog{bar}\\d+ files, \\d+/s")):
            shown = self.standard_error_on_a_terminal(*command, slow_reader=True)
            self.assertRegex(shown, words)
            # The line is cleared in the end.
            self.assertTrue(shown.endswith("\r\033[K"), shown[-40:])

    def test_silence_elsewhere(self):
        (self.source / "big").write_bytes(b"b" * 1_000_000)
        self.image()
        self.assertEqual(self.run_tool("extract", "image", "/big", "-o", "-").stderr, b"")
        self.assertIsNone(re.search("left", self.message("catalog", "image", status=0)))
