"""What the pages say is true: their code is the code in the tree and runs, their links lead somewhere.

    pages.py CHECK SOURCE BUILD CMAKE
"""
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile

SOURCE, BUILD, CMAKE = pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]), sys.argv[4]
TOOL = BUILD / "bin" / "rvpmap"


def code_blocks(page, language):
    text = (SOURCE / "docs" / page).read_text()
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.S | re.M)


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def shell(script, folder, **variables):
    environment = dict(os.environ, PATH=f"{TOOL.parent}:{os.environ['PATH']}:/usr/sbin:/sbin")
    environment.update({name: str(value) for name, value in variables.items()})
    return run("bash", "-euo", "pipefail", "-c", script, cwd=folder, env=environment)


def install(folder):
    run(CMAKE, "--install", BUILD, "--prefix", folder / "prefix")
    return folder / "prefix"


def make_volume(folder, name, label="volume"):
    files = folder / f"files-{name}"
    files.mkdir()
    (files / "numbers").write_text("".join(f"{n} of {name}\n" for n in range(5000)))
    (files / "short").write_text("short")
    shell(f"mke2fs -q -F -t ext4 -b 1024 -L {label} -d {files} {name} 8M", folder)


def check_hosts(folder):
    host = SOURCE / "examples" / "host" / "main.cpp"
    code = host.read_text()
    assert code_blocks("hosts.md", "cpp") == [code], "docs/hosts.md shows other code than main.cpp"
    assert len(code.splitlines()) <= 60, "the host has grown over 60 lines"
    prefix = install(folder)
    make_volume(folder, "disk.img")
    script = code_blocks("hosts.md", "sh")[0]
    script = script.replace("build/release", str(BUILD)).replace("/opt/dorado", str(prefix))
    script = script.replace("examples/host/main.cpp", str(host)).replace("cmake ", f"{CMAKE} ", 1)
    index = run(TOOL, "stat", "--json", folder / "disk.img", "/numbers")
    index = re.search(r'"index":\s*(\d+)', index).group(1)
    assert "disk.img 12\n" in script
    lines = shell(script.replace("disk.img 12\n", f"disk.img {index} >runs\n") + "cat runs", folder)
    runs = [line.split() for line in lines.splitlines() if not line.startswith("--")]
    volume = (folder / "disk.img").read_bytes()
    data = b"".join(volume[int(at):int(at) + int(length)] for _, at, length, _ in runs)
    expected = (folder / "files-disk.img" / "numbers").read_bytes()
    assert data[:len(expected)] == expected and len(data) - len(expected) < 1024, lines
    failed = subprocess.run([folder / "host", prefix, folder / "disk.img", "9999999"],
                            capture_output=True, text=True)
    assert failed.returncode == 3 and "code 11: System call failed" in failed.stderr, failed


def check_file_systems(folder):
    prefix = install(folder)
    files = folder / "files"
    files.mkdir()
    for number in range(300):
        (files / f"name-{number:03}").write_text("x" * number * 7)
    (files / "numbers").write_text("".join(f"{n}\n" for n in range(20000)))
    shell("cd files && tar --format=ustar -cf ../files.tar *", folder)
    listing = shell(code_blocks("file-systems.md", "sh")[0], folder, prefix=prefix, source=SOURCE)
    assert listing.count("name-") == 300, listing
    assert (folder / "numbers").read_bytes() == (files / "numbers").read_bytes()
    shell("rvpmap --root root extract -r files.tar / -o all && diff -r files all", folder)
    make_volume(folder, "other.img")
    refused = subprocess.run([TOOL, "--root", "root", "claim", "other.img"], cwd=folder,
                             capture_output=True, text=True)
    assert (refused.returncode, refused.stdout) == (1, "none\n"), refused


def check_scale(folder):
    (folder / "volumes").mkdir()
    for number in range(12):
        make_volume(folder, f"v{number:02}.img", label=f"vol{number:02}")
        shutil.move(folder / f"v{number:02}.img", folder / "volumes")
    (folder / "volumes" / "empty.img").write_bytes(bytes(1 << 20))
    make, merge = code_blocks("scale.md", "sh")[:2]
    shell(make, folder)
    assert len(list((folder / "catalogues").glob("*.db"))) == 12
    assert (folder / "failed.txt").read_text() == "volumes/empty.img 1\n"
    shell(merge, folder)
    database = sqlite3.connect(folder / "fleet.db")
    assert database.execute("SELECT count(*) FROM file WHERE path = '/short'").fetchone() == (12,)
    answers = [database.execute(query).fetchall() for query in code_blocks("scale.md", "sql")]
    assert all(answers), answers


def check_links(_folder):
    pages = [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]
    for page in pages:
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text()):
            assert (page.parent / target).exists(), f"{page.name}: {target} is not there"


def check_man(_folder):
    for page in sorted((SOURCE / "docs").glob("*.[1-8]")):
        done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                              capture_output=True, text=True, env=dict(os.environ, MANWIDTH="80"))
        assert done.returncode == 0 and not done.stderr, f"{page.name}: {done.stderr}"
    names = re.findall(r"^int (rvp_map_\w+)\(|^void (rvp_map_\w+)\(",
                       (SOURCE / "include" / "kmp" / "rvp_map.h").read_text(), re.M)
    manual = (SOURCE / "docs" / "libdorado.3").read_text()
    assert len(names) == 24
    for name in map("".join, names):
        assert f"{name}(" in manual, f"libdorado(3) lacks {name}"


with tempfile.TemporaryDirectory(prefix="dorado-pages-") as work:
    globals()[f"check_{sys.argv[1]}"](pathlib.Path(work))
