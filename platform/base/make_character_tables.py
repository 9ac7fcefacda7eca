#!/usr/bin/env python3
"""Writes character_tables.cpp: letter case and character classes of the Basic Multilingual Plane.

Usage: make_character_tables.py [FOLDER] > character_tables.cpp

FOLDER holds UnicodeData.txt (default: /usr/share/unicode, Debian's package unicode-data).
"""

import sys

BLOCK = 64
# The class bits have the values of the platform's own class test.
UPPER, LOWER, DIGIT, SPACE, PUNCT, CONTROL, PRINT, HEX, ALPHA = (1 << bit for bit in range(9))
SPACES = [*range(0x09, 0x0E), 0x20, 0x85, 0xA0, 0x1680, *range(0x2000, 0x200B), 0x2028, 0x2029, 0x202F, 0x205F, 0x3000]


def records(path):
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            line = line.split("#")[0].strip()
            if line:
                yield [field.strip() for field in line.split(";")]


def class_of(code, category):
    bits = SPACE if code in SPACES else 0
    bits |= {"Lu": UPPER, "Ll": LOWER, "Cc": CONTROL}.get(category, 0)
    if category[0] == "L":
        bits |= ALPHA
    if category[0] in "PS":
        bits |= PUNCT
    if category[0] in "LMNPS" or category == "Zs":
        bits |= PRINT
    if chr(code) in "0123456789":
        bits |= DIGIT
    if chr(code) in "0123456789abcdefABCDEF":
        bits |= HEX
    return bits


def case_and_classes(folder):
    """The letters' cases as pairs: each is the other's only partner, whichever way one goes."""
    to_upper, to_lower = {}, {}
    classes = [0] * 0x10000
    first = None
    for fields in records(folder + "/UnicodeData.txt"):
        code = int(fields[0], 16)
        if code > 0xFFFF:
            break
        if fields[1].endswith(", First>"):
            first = code
            continue
        for member in range(first if first is not None else code, code + 1):
            classes[member] = class_of(member, fields[2])
        first = None
        for mapping, field in ((to_upper, fields[12]), (to_lower, fields[13])):
            if field:
                mapping[code] = int(field, 16)
    lower, upper = list(range(0x10000)), list(range(0x10000))
    for capital, small in to_lower.items():
        if small < 0x10000 and to_upper.get(small) == capital:
            lower[capital], upper[small] = small, capital
    return lower, upper, classes


def two_level(name, values):
    """A table of blocks, each kept once, and for each 64 characters the number of their block."""
    blocks, index = [], []
    for start in range(0, 0x10000, BLOCK):
        block = values[start : start + BLOCK]
        if block not in blocks:
            blocks.append(block)
        index.append(blocks.index(block))
    assert len(blocks) <= 256
    yield "constinit const std::uint8_t %s_index[1024] = {" % name
    yield from rows(index)
    yield "};"
    yield "constinit const std::uint16_t %s_blocks[][%d] = {" % (name, BLOCK)
    for block in blocks:
        yield "    {"
        yield from rows(block)
        yield "    },"
    yield "};"
    yield ""


def rows(numbers, width=16):
    for start in range(0, len(numbers), width):
        yield "    " + " ".join("%d," % number for number in numbers[start : start + width])


def deltas(mapping):
    return [(target - code) & 0xFFFF for code, target in enumerate(mapping)]


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else "/usr/share/unicode"
    lower, upper, classes = case_and_classes(folder)
    print("// Written by make_character_tables.py from Unicode 15.0; not edited by hand.")
    print("// clang-format off")
    print('#include "character_tables.h"\n\nnamespace zr::platform {\n')
    for name, values in (
        ("lower", deltas(lower)),
        ("upper", deltas(upper)),
        ("class", classes),
    ):
        print("\n".join(two_level(name, values)))
    print("}  // namespace zr::platform")


if __name__ == "__main__":
    main()
