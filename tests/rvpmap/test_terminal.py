"""Terminals: the progress line with rate and time left, and colours; both nowhere else."""
import contextlib
import os
import subprocess

from support import TOOL, ToolTest

# Long enough for the next line, and more than a pipe holds.
READ_SLOWLY = ["sh", "-c", '"$0" "$@" | (sleep 0.4; cat >/dev/null)', TOOL]


class Terminal(ToolTest):
    def shown(self, *command, **environment):
        main, end = os.openpty()
        subprocess.run(command, cwd=self.folder, stdout=end, stderr=end, check=True,
                       env={**os.environ, **environment})
        os.close(end)
        text = b""
        with contextlib.suppress(OSError):  # the end of a terminal
            while piece := os.read(main, 65536):
                text += piece
        os.close(main)
        return text.decode()

    def test_progress(self):
        (self.source / "big").write_bytes(b"b" * 12_000_000)
        for number in range(1500):
            (self.source / f"{number}").touch()
        self.image("-N", "3000", size="32M")
        bar = r" \[#* *\] +\d+ %, \d+ s left, "
        for command, words in ((["extract", "image", "/big", "-o", "-"],
                                f"extract{bar}[\\d.]+MB, [\\d.]+[KM]B/s"),
                               (["catalog", "image"], f"catalog{bar}\\d+ files, \\d+/s")):
            shown = self.shown(*READ_SLOWLY, *command)
            self.assertRegex(shown, words)
            self.assertTrue(shown.endswith("\r\033[K"), shown[-40:])  # the line is cleared
            silent = subprocess.run([*READ_SLOWLY, *command], cwd=self.folder, check=True,
                                    stderr=subprocess.PIPE)
            self.assertEqual(silent.stderr, b"")

    def test_colours(self):
        (self.source / "d").mkdir()
        self.image()
        self.assertNotIn("\033", self.text("ls", "image"))
        self.assertIn("\033[1;34md\033[0m", self.text("ls", "--color", "always", "image"))
        self.assertIn("\033[1;34m", self.shown(TOOL, "ls", "image"))
        self.assertNotIn("\033", self.shown(TOOL, "ls", "image", NO_COLOR="1"))
