#!/usr/bin/python3
"""The memory of programs that watch, over as many changes as they hear in days.

    soak.py BUILD [CHANGES]     folder of an optimised build; a million changes unless told otherwise

A third of the changes each are of files in a folder that `zr watch` watches, of values in a key that `zr reg watch`
watches, and of contacts beside `zr resolve --watch`. Prints, in twenty rounds, the private memory of the three in KB
once they have heard everything, and at last how many lines each wrote."""

import os
import signal
import subprocess
import sys
import tempfile
import time

ROUNDS = 20
KEY = "HKEY_CURRENT_USER\\Software\\Soak"


def private_kb(process):
    with open(f"/proc/{process.pid}/smaps_rollup") as lines:
        return sum(int(line.split()[1]) for line in lines if line.startswith("Private_"))


def processor_time(process):
    with open(f"/proc/{process.pid}/stat") as line:
        return sum(map(int, line.read().rsplit(")", 1)[1].split()[11:13]))


def until_idle(processes):
    before = None
    while True:
        now = [processor_time(process) for process in processes]
        if now == before:
            return
        before = now
        time.sleep(1)


def change_files(folder, count):
    """Each file is made, written to, renamed and deleted: four changes."""
    for number in range(count // 4):
        path = os.path.join(folder, f"file {number % 1000}")
        with open(path, "w") as file:
            file.write("text")
        with open(path, "a") as file:
            file.write("more")
        os.rename(path, path + " renamed")
        os.unlink(path + " renamed")
        if number % 1000 == 999:
            time.sleep(0.05)  # the kernel's queue is no endless one


def write_values(path, count, turn):
    with open(path, "w", encoding="utf-16") as file:
        file.write("Windows Registry Editor Version 5.00\r\n\r\n")
        file.write(f"[{KEY}]\r\n")
        for number in range(count):
            file.write(f'"value {number}"=dword:{turn:08x}\r\n')


def write_cards(path, count, turn):
    with open(path, "w") as file:
        for number in range(count):
            file.write(f"BEGIN:VCARD\r\nVERSION:3.0\r\nUID:soak-{number}\r\nREV:2020-01-01T00:{turn:02}:00Z\r\n"
                       f"FN:Person {number} of {turn}\r\nN:Person {number};of {turn};;;\r\n"
                       f"EMAIL:p{number}@example.org\r\nEND:VCARD\r\n")


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    zr = os.path.abspath(os.path.join(sys.argv[1], "bin/zr"))
    each = (int(sys.argv[2]) if len(sys.argv) == 3 else 1000000) // 3 // ROUNDS
    with tempfile.TemporaryDirectory() as home:
        env = dict(os.environ, ZR_HOME=os.path.join(home, "state"))
        watched = os.path.join(home, "watched")
        os.mkdir(watched)
        source = os.path.join(home, "source")

        def run(*command):
            done = subprocess.run([zr, *command], env=env, capture_output=True, text=True)
            if done.returncode != 0:
                sys.exit(f"{command}: {done.returncode} {done.stderr[:300]}")

        write_values(source, each, 0)
        run("reg", "import", source)
        write_cards(source, each, 0)
        run("contacts", "import", "--quiet", source)

        commands = {"zr watch": ("watch", watched), "zr reg watch": ("reg", "watch", KEY),
                    "zr resolve --watch": ("resolve", "--watch", "p7@example.org")}
        outputs = {name: open(os.path.join(home, name), "w+") for name in commands}
        watchers = {name: subprocess.Popen([zr, *command], env=env, stdout=outputs[name])
                    for name, command in commands.items()}
        try:
            until_idle(watchers.values())
            print("changes", *commands, sep="\t")
            for turn in range(ROUNDS + 1):
                if turn != 0:
                    change_files(watched, each)
                    write_values(source, each, turn)
                    run("reg", "import", source)
                    write_cards(source, each, turn)
                    run("contacts", "import", "--quiet", source)
                    until_idle(watchers.values())
                print(turn * each * 3, *(private_kb(each_one) for each_one in watchers.values()), sep="\t", flush=True)
        finally:
            for watcher in watchers.values():
                watcher.send_signal(signal.SIGINT)
                watcher.wait()
        for output in outputs.values():
            output.seek(0)
        print("lines", *(sum(1 for _ in output) for output in outputs.values()), sep="\t")


main()
