#!/usr/bin/python3
"""How large the libraries are, what a process pays that links them, and how long the tool takes from start to end,
beside khard and notmuch on the same people.

    start_up.py BUILD [OTHER_BUILD...]     folders of optimised builds; the first one's programs are run

Prints one table after the other. Times are the least of several runs, in milliseconds."""

import os
import shutil
import subprocess
import sys
import tempfile
import time

SIZES = (10, 1000, 100000)
RUNS = 9

EMPTY = "#include <cstdio>\nint main() { std::getchar(); }\n"
ONE_FUNCTION = """#include <ZrUtility/ZrUtility.h>
#include <cstdio>
int main() {
    WCHAR text[] = u"one";
    const bool same = StringUtilities::StartsWithIgnoreCase(text, text) != 0;
    std::getchar();
    return same ? 0 : 1;
}
"""


def run(command, env, runs=RUNS, expect=None):
    """The least time of a command in milliseconds; None where it is not there or answers something else."""
    if shutil.which(command[0]) is None:
        return None
    best = None
    for _ in range(runs):
        begin = time.monotonic()
        done = subprocess.run(command, env=env, capture_output=True, text=True)
        took = (time.monotonic() - begin) * 1000
        if done.returncode != 0 or (expect and expect not in done.stdout):
            sys.exit(f"{' '.join(command)}: {done.returncode} {done.stdout[:200]} {done.stderr[:200]}")
        best = took if best is None else min(best, took)
        if took > 20000:
            break
    return best


def sizes(builds):
    print("stripped, KB")
    with tempfile.TemporaryDirectory() as folder:
        for name in ("lib/libZrLog.so", "lib/libzrplatform.so", "lib/libZrUtility.so", "bin/zr"):
            row = []
            for build in builds:
                copy = os.path.join(folder, "copy")
                shutil.copyfile(os.path.realpath(os.path.join(build, name)), copy)
                for strip in ("strip", "arm-linux-gnueabihf-strip", "aarch64-linux-gnu-strip"):
                    if shutil.which(strip) and subprocess.run([strip, copy], capture_output=True).returncode == 0:
                        break
                row.append(os.path.getsize(copy) // 1024)
            print(f"  {name:28}", *row)


def private_kilobytes(program):
    """What only this process has, in KB: pages that it wrote to, and pages of files that no other process uses now."""
    process = subprocess.Popen([program], stdin=subprocess.PIPE)
    while "\nState:\tS" not in open(f"/proc/{process.pid}/status").read():
        pass
    with open(f"/proc/{process.pid}/smaps_rollup") as rollup:
        pages = {line.split(":")[0]: int(line.split()[1]) for line in rollup if line.startswith("Private_")}
    process.communicate(b"\n")
    return pages["Private_Dirty"], pages["Private_Clean"]


def memory(build):
    source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    print("private memory, KB: written to, files' pages that nobody else uses")
    with tempfile.TemporaryDirectory() as folder:
        for name, text, libraries in (("an empty program", EMPTY, []),
                                      ("one string function", ONE_FUNCTION, ["-lZrUtility"])):
            program = os.path.join(folder, "program")
            lib = os.path.join(os.path.abspath(build), "lib")
            subprocess.run(["g++", "-std=c++20", "-O2", "-x", "c++", "-", "-o", program, f"-I{source}",
                            f"-I{source}/platform/include", f"-L{lib}", f"-Wl,-rpath,{lib}", *libraries],
                           input=text, text=True, check=True)
            print(f"  {name:28}", *private_kilobytes(program))


def start_up(build):
    zr = os.path.join(os.path.abspath(build), "bin/zr")
    print("from start to end, ms")
    print(f"  {'zr --version':28} {run([zr, '--version'], os.environ):.1f}")
    for size in SIZES:
        with tempfile.TemporaryDirectory() as home:
            env = dict(os.environ, HOME=home, ZR_HOME=home + "/zr", XDG_RUNTIME_DIR=home,
                       NOTMUCH_CONFIG=home + "/notmuch",
                       XDG_CONFIG_HOME=home + "/config", XDG_CACHE_HOME=home + "/cache", XDG_DATA_HOME=home + "/data")
            people(home, size)
            wanted = f"person{size // 2}@example.org"
            subprocess.run([zr, "contacts", "import", home + "/people.vcf"], env=env, check=True, capture_output=True)
            row = [run([zr, "resolve", wanted], env, expect=f"Person {size // 2}"),
                   run(["khard", "email", "--parsable", wanted], env, expect=f"Person {size // 2}")]
            if shutil.which("notmuch"):
                subprocess.run(["notmuch", "new", "--quiet"], env=env, check=True, capture_output=True)
            row.append(run(["notmuch", "address", "from:" + wanted], env, expect=f"Person {size // 2}"))
            print(f"  resolve, {size:7} people       ",
                  "  ".join(f"{name} {value:.1f}" if value else f"{name} -"
                            for name, value in zip(("zr", "khard", "notmuch"), row)), flush=True)


def people(home, size):
    """The same people as one file of cards, as khard keeps them, and as the senders of messages."""
    for folder in ("cards", "mail/cur", "mail/new", "mail/tmp", "config/khard"):
        os.makedirs(f"{home}/{folder}")
    with open(home + "/people.vcf", "w") as together:
        for i in range(size):
            card = (f"BEGIN:VCARD\r\nVERSION:3.0\r\nUID:{i}\r\nFN:Person {i}\r\nN:{i};Person;;;\r\n"
                    f"EMAIL:person{i}@example.org\r\nEND:VCARD\r\n")
            together.write(card)
            with open(f"{home}/cards/{i}.vcf", "w") as alone:
                alone.write(card)
            with open(f"{home}/mail/cur/{i}:2,S", "w") as message:
                message.write(f"From: Person {i} <person{i}@example.org>\nTo: me@example.org\nSubject: {i}\n"
                              f"Message-ID: <{i}@example.org>\nDate: Mon, 2 Mar 2026 10:00:00 +0000\n\nHello\n")
    with open(home + "/config/khard/khard.conf", "w") as khard:
        khard.write(f"[addressbooks]\n[[people]]\npath = {home}/cards\n[general]\n[contact table]\n[vcard]\n")
    with open(home + "/notmuch", "w") as notmuch:
        notmuch.write(f"[database]\npath={home}/mail\n[user]\nname=Me\nprimary_email=me@example.org\n[new]\n"
                      "tags=inbox\nignore=\n[search]\nexclude_tags=\n[maildir]\nsynchronize_flags=false\n")


if len(sys.argv) < 2:
    sys.exit(__doc__)
sizes(sys.argv[1:])
memory(sys.argv[1])
start_up(sys.argv[1])
