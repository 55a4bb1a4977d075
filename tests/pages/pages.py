"""What pages, manuals and completions say is true: pages.py CHECK SOURCE BUILD CMAKE"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SOURCE, BUILD, CMAKE = pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]), sys.argv[4]


def code_blocks(page, language):
    return re.findall(rf"(?sm)^```{language}\n(.*?)^```$", (SOURCE / "docs" / page).read_text())


def shell(script, **variables):
    path = f"{BUILD}/bin:{os.environ['PATH']}:/usr/sbin:/sbin"
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", script], text=True, check=False,
                          capture_output=True, env={**os.environ, "PATH": path, **variables})
    assert done.returncode == 0, f"{script}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


def make_files():
    shell("mkdir files; for i in {100..399}; do seq $i >files/name-$i; done; "
          "seq 20000 >files/numbers; mke2fs -q -t ext4 -b 1024 -d files disk.img 8M")


def check_hosts():
    host = SOURCE / "examples" / "host" / "main.cpp"
    assert code_blocks("hosts.md", "cpp") == [host.read_text()], "hosts.md shows other code"
    assert len(host.read_text().splitlines()) <= 60, "the host has grown over 60 lines"
    make_files()
    index = re.search(r'"index":(\d+)', shell("rvpmap stat --json disk.img /numbers"))[1]
    script = code_blocks("hosts.md", "sh")[0]
    for old, new in (("build/release", BUILD), ("/opt/dorado", "$PWD/prefix"),
                     ("cmake ", f"{CMAKE} "), ("examples/host/main.cpp", host),
                     ("disk.img 12\n", f"disk.img {index}\n")):
        script = script.replace(old, str(new))
    volume = pathlib.Path("disk.img").read_bytes()
    runs = re.findall(r"^ *\d+ +(\d+) +(\d+) \w+$", shell(script), re.M)
    data = b"".join(volume[int(at):int(at) + int(length)] for at, length in runs)
    assert data.rstrip(b"\0") == pathlib.Path("files", "numbers").read_bytes()
    failed = shell("./host prefix disk.img 9999999 2>&1 || echo status $?")
    assert re.search(r"code 11: System call failed.*\nstatus 3\n", failed), failed


def check_file_systems():
    make_files()
    shell(f"{CMAKE} --install {BUILD} --prefix prefix; cd files; "
          "tar --format=ustar -cf ../files.tar *")
    listing = shell(code_blocks("file-systems.md", "sh")[0], prefix=f"{os.getcwd()}/prefix",
                    source=str(SOURCE))
    assert listing.count("name-") == 300, listing
    shell("cmp numbers files/numbers; "
          "rvpmap --root root extract -r files.tar / -o all; diff -r files all")
    assert shell("rvpmap --root root claim disk.img || echo $?") == "none\n1\n"


def check_scale():
    make_files()
    shell("mkdir volumes; for i in {10..21}; do cp disk.img volumes/$i.img; "
          "tune2fs -L vol$i volumes/$i.img; done; truncate -s 1M volumes/empty.img")
    make, merge = code_blocks("scale.md", "sh")[:2]
    shell(make)
    assert pathlib.Path("failed.txt").read_text() == "volumes/empty.img 1\n"
    shell(merge)
    for query in ("SELECT 1 FROM file WHERE path = '/numbers' GROUP BY path HAVING count(*) = 12;",
                  *code_blocks("scale.md", "sql")):
        assert shell(f"sqlite3 fleet.db <<'END'\n{query}\nEND"), query


def check_links():
    for page in [SOURCE / "README.md", *(SOURCE / "docs").glob("*.md")]:
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text()):
            assert (page.parent / target).exists(), f"{page.name}: {target} is not there"


def check_man():
    for page in (SOURCE / "docs").glob("*.[1-8]"):
        messages = shell(f"MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z {page} 2>&1 >/dev/null")
        assert not messages, f"{page.name}: {messages}"
    header = (SOURCE / "include" / "kmp" / "rvp_map.h").read_text()
    names = re.findall(r"^(?:int|void) (rvp_map_\w+)\(", header, re.M)
    manual = (SOURCE / "docs" / "libdorado.3").read_text()
    missing = [name for name in names if f"{name}(" not in manual]
    assert len(names) == 24 and not missing, missing


def check_api():
    """No warning, and no word missing on anything that a host or a library author includes."""
    for lines in ("", "EXTRACT_ALL=NO\nINPUT=include host/kmhost.h"):
        shell(f"pages=$PWD; cd {SOURCE}; {{ cat {BUILD}/Doxyfile; echo OUTPUT_DIRECTORY=$pages; "
              f"echo '{lines}'; }} | doxygen -; grep -q rvp_map_get_extent $pages/html/*map_8h*")


def options(page):
    return re.findall(r"^  (?:-\w,)?--(?!help|version)([a-z-]+)", page, re.M)


def parts(text, command):
    """What a completion says of one command."""
    def those(pattern):
        return "".join(part for part in re.split(r";;|\n(?=complete)", text)
                       if re.search(pattern, part, re.M))
    own = those(rf"^ *{command}\) |from [a-z ]*\b{command}\b") or those(r"^ *\*\) ")
    return own + those(r"^ *_arguments|from \$comm")


def check_completions():
    """They know all commands, options and choices that help shows, and their shells accept them."""
    overview = shell("rvpmap --help")
    listed = overview.split("Subcommands:")[1].split("\n\n")[0]
    pages = {command: shell(f"rvpmap {command} --help")
             for command in re.findall(r"^  ([a-z]+) ", listed, re.M)}
    assert len(pages) >= 10, pages
    for name, file in (("bash", "rvpmap.bash"), ("zsh", "_rvpmap"), ("fish", "rvpmap.fish")):
        path = SOURCE / "tools" / "rvpmap" / "completions" / file
        assert not shell(f"! command -v {name} >/dev/null || {name} -n {path} 2>&1")
        text = path.read_text().replace("-l ", "--")  # as fish has it
        for option in options(overview):
            assert f"--{option}" in text, (name, option)
        for command, page in pages.items():
            for option in options(page):
                assert f"--{option}" in parts(text, command), (name, command, option)
            for word in ",".join([command, *re.findall(r"TEXT:\{([^}]*)\}", page)]).split(","):
                assert re.search(rf"\b{word}\b", text), (name, command, word)


with tempfile.TemporaryDirectory(prefix="dorado-pages-") as work:
    os.chdir(work)
    globals()[f"check_{sys.argv[1]}"]()
