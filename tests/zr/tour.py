"""Runs the commands of the tour in docs/zr.md, in an empty world, and compares what they print with what the tour says;
then draws the overview, as a terminal shows it, and compares the picture with docs/overview.svg.

    tour.py ZR SOURCE            check
    tour.py ZR SOURCE --write    put what is printed now into the page and the picture
"""

import html
import os
import pty
import re
import subprocess
import sys
import tempfile

BEGIN, END = "<!-- tour -->\n", "<!-- end of the tour -->\n"


def world(folder, zr):
    tools = os.path.join(folder, "bin")
    os.mkdir(tools)
    os.symlink(zr, os.path.join(tools, "zr"))
    home = os.path.join(folder, "home")
    os.mkdir(home, 0o700)
    kept = {name: value for name, value in os.environ.items() if not name.startswith(("ZR_", "XDG_", "LC_"))}
    kept.update(PATH=tools + ":" + kept["PATH"], HOME=folder, ZR_HOME=home, XDG_RUNTIME_DIR=home, TZ="Europe/Berlin",
                TERM="xterm", LANG="C.UTF-8")
    kept.pop("NO_COLOR", None)
    return kept


def printed(command, world_of, source):
    done = subprocess.run(["sh", "-c", command], cwd=source, env=world_of, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120, check=False)
    return done.stdout.decode()


def as_it_is(tour, world_of, source):
    """The tour with what its commands print now."""
    out, in_block = [], False
    for line in tour.splitlines(keepends=True):
        if line.startswith("```"):
            in_block = line.startswith("```console")
            out.append(line)
        elif not in_block:
            out.append(line)
        elif line.startswith("$ "):
            out.append(line)
            out.append(printed(line[2:], world_of, source))
    return "".join(out)


def on_a_terminal(world_of, source):
    """What zr alone writes to a terminal."""
    child, terminal = pty.fork()
    if child == 0:
        os.chdir(source)
        os.execvpe("zr", ["zr"], world_of)
    text = b""
    while True:
        try:
            piece = os.read(terminal, 4096)
        except OSError:  # the end, on Linux
            break
        if not piece:
            break
        text += piece
    os.close(terminal)
    os.waitpid(child, 0)
    return text.decode().replace("\r\n", "\n")


def picture(text):
    """Lines with emphasised parts as an SVG."""
    lines = ("$ zr\n" + text).rstrip("\n").split("\n")
    width = 24 + 9 * max(len(re.sub("\033\\[[0-9;]*m", "", line)) for line in lines)
    height = 24 + 20 * len(lines)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}">\n',
           f'<rect width="{width}" height="{height}" rx="6" fill="#1e1e2e"/>\n',
           '<g font-family="monospace" font-size="15" fill="#cdd6f4" xml:space="preserve">\n']
    for row, line in enumerate(lines):
        shown = html.escape(line, quote=False).replace("\033[1m", '<tspan font-weight="bold" fill="#ffffff">')
        shown = shown.replace("\033[0m", "</tspan>")
        out.append(f'<text x="12" y="{27 + 20 * row}">{shown}</text>\n')
    return "".join(out) + "</g>\n</svg>\n"


def main():
    zr, source = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    page_name, picture_name = os.path.join(source, "docs/zr.md"), os.path.join(source, "docs/overview.svg")
    with open(page_name, encoding="utf-8") as file:
        page = file.read()
    before, rest = page.split(BEGIN)
    tour, after = rest.split(END)
    with tempfile.TemporaryDirectory() as folder:
        world_of = world(folder, zr)
        now = as_it_is(tour, world_of, source)
        drawn = picture(on_a_terminal(world_of, source))
    if "--write" in sys.argv:
        with open(page_name, "w", encoding="utf-8") as file:
            file.write(before + BEGIN + now + END + after)
        with open(picture_name, "w", encoding="utf-8") as file:
            file.write(drawn)
        return 0
    with open(picture_name, encoding="utf-8") as file:
        same_picture = file.read() == drawn
    if now != tour:
        for said, is_now in zip(tour.splitlines(), now.splitlines()):
            if said != is_now:
                print(f"the tour says: {said}\nzr prints:     {is_now}")
                break
    if not same_picture:
        print("the picture is another one now")
    if now.count("\n$ ") < 10:
        print("the tour has lost its commands")
        return 1
    return 0 if now == tour and same_picture else 1


sys.exit(main())
