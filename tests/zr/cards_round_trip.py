#!/usr/bin/python3
"""Imports cards with zr, exports them in each version and compares what was read with what was written.

    cards_round_trip.py ZR FILE.vcf...

The lines are split by vobject, which shares nothing with zr. Two cards are equal when they have the same properties,
whatever the version calls a kind, a preference, a character set or an encoding. Ends with 77 where there is no vobject.
"""
import base64
import codecs
import collections
import io
import os
import subprocess
import sys
import tempfile

try:
    from vobject import base as vobject
except ImportError:
    sys.exit(77)

DATA = ('PHOTO', 'LOGO', 'SOUND', 'KEY')
DAYS = ('BDAY', 'ANNIVERSARY', 'REV')
NAMES = {'X-EVOLUTION-ANNIVERSARY': 'ANNIVERSARY', 'X-ANNIVERSARY': 'ANNIVERSARY'}
MEDIA = {'application/pkix-cert': 'x509', 'application/pgp-keys': 'pgp'}
FILE = ('VERSION', 'PRODID')  # say nothing of the person


def decoded(data):
    if data.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE)):
        return data.decode('utf-16')
    return data.decode('utf-8-sig')


def split(text, mark):
    """The parts of a value, still escaped."""
    parts, at, begin = [], 0, 0
    while at < len(text):
        if text[at] == '\\':
            at += 1
        elif text[at] == mark:
            parts.append(text[begin:at])
            begin = at + 1
        at += 1
    return parts + [text[begin:]]


def unescaped(text, version):
    if version == '2.1':
        return text.replace('\\;', ';')
    out, at = '', 0
    while at < len(text):
        if text[at] == '\\' and at + 1 < len(text):
            at += 1
            out += '\n' if text[at] in 'nN' else text[at]
        else:
            out += text[at]
        at += 1
    return out


class Parameters:
    def __init__(self, line):
        self.types, self.others, self.preference, self.binary = set(), set(), None, False
        for word in line.singletonparams:
            self.take('TYPE', word)
        for name, values in line.params.items():
            for value in values:
                self.take(name, value)

    def take(self, name, value):
        for word in value.split(',') if name == 'TYPE' else [value]:
            word = word.strip('"')
            if name == 'ENCODING' or word.upper() == 'BASE64':
                self.binary = self.binary or word.upper() in ('B', 'BASE64')
            elif name == 'CHARSET':
                pass
            elif name == 'TYPE' and word.upper() == 'PREF':
                self.preference = '1'
            elif name == 'PREF':
                self.preference = word
            elif name == 'TYPE':
                self.types.add(word.lower())
            else:
                self.others.add((name, 'uri' if word.upper() == 'URL' else word))


def value_of(name, line, parameters, version, quoted):
    text = line.value
    if parameters.binary:
        return base64.b64decode(text)
    if text.startswith('data:') and ';base64,' in text:
        media, data = text[5:].split(';base64,')
        kind = MEDIA.get(media, media.split('/')[1])
        if kind != 'octet-stream':
            parameters.types.add(kind)
        parameters.others.discard(('VALUE', 'uri'))
        return base64.b64decode(data)
    if name in DAYS:
        return text.replace('-', '').replace(':', '')
    if name == 'TEL' and text.startswith('tel:'):
        parameters.others.discard(('VALUE', 'uri'))
        return (text[4:],)
    # Quoted-printable has the text itself; lists of version 2.1 have semicolons only.
    parts = [text] if quoted and ';' not in text else split(text, ';')
    if name in ('CATEGORIES', 'NICKNAME') and version != '2.1':
        return tuple(sorted(unescaped(part, version) for part in split(text, ',')))
    parts = [unescaped(part, version).replace('\r\n', '\n') for part in parts]
    while name in ('N', 'ORG') and parts and not parts[-1]:
        parts.pop()
    return tuple(parts)


def properties_of(text, version):
    for line_text, number in vobject.getLogicalLines(io.StringIO(text), allowQP=True):
        quoted = 'QUOTED-PRINTABLE' in line_text.split(':')[0].upper()
        if quoted:
            # What is an encoded semicolon is no separator: it is marked before vobject decodes the line.
            line_text = line_text.replace('=3B', '\\;').replace('=\n', '')
        line = vobject.textLineToContentLine(line_text, number)
        name = NAMES.get(line.name, line.name)
        if name in FILE or name in ('BEGIN', 'END'):
            continue
        parameters = Parameters(line)
        value = value_of(name, line, parameters, version, quoted)
        yield (line.group or '', name, tuple(sorted(parameters.types)), parameters.preference or '',
               tuple(sorted(parameters.others)), value)


def cards_of(data):
    """The lines of each card; those of a card within are the outer one's."""
    cards, depth = [], 0
    for line in io.StringIO(decoded(data), newline=None):
        if line.strip().upper() == 'BEGIN:VCARD':
            depth += 1
            if depth == 1:
                cards.append('')
        if depth == 1 and line.upper().startswith('VERSION:'):
            version = line[8:].strip()
        if depth > 0:
            cards[-1] += line
        if line.strip().upper() == 'END:VCARD':
            depth -= 1
            if depth == 0:
                cards[-1] = collections.Counter(agent_joined(cards[-1], version))
    return cards


def agent_joined(card, version):
    """Versions 3.0 and later write the card of an agent as one text."""
    properties = []
    for one in properties_of(card, version):
        if one[1] == 'AGENT':
            nested = '\n'.join(one[5]) if one[5] else ''
            for line in nested.splitlines():
                if not line.upper().startswith(('BEGIN', 'END', 'VERSION')):
                    properties.extend(properties_of(line, version))
        else:
            properties.append(one)
    return properties


def allowed(extra, before):
    """What a version needs where the card had none."""
    names = {one[1] for one in before}
    return extra[1] in ('FN', 'N', 'X-EVOLUTION-FILE-AS') and ('FN' not in names or 'N' not in names)


def without_lists(cards):
    """Version 2.1 has no commas between the values of a list."""
    def plain(name, value):
        if name not in ('CATEGORIES', 'NICKNAME'):
            return value
        return sorted(word for text in value for word in text.split(','))

    return [collections.Counter(tuple(one[:5]) + (str(plain(one[1], one[5])),) for one in card.elements())
            for card in cards]


def differences(before, after):
    if len(before) != len(after):
        yield f'{len(before)} cards became {len(after)}'
    for old, new in zip(before, after):
        for one in old - new:
            yield f'lost: {one}'
        for one in new - old:
            if not allowed(one, old):
                yield f'invented: {one}'


def round_trip(zr, path, version):
    with tempfile.TemporaryDirectory() as home:
        environment = dict(os.environ, ZR_HOME=home)
        imported = subprocess.run([zr, 'contacts', 'import', '--quiet', path], env=environment)
        if imported.returncode != 0:
            sys.exit(f'{path}: import ended with {imported.returncode}')
        return subprocess.run([zr, 'contacts', 'export', '--vcard-version', version], env=environment, check=True,
                              stdout=subprocess.PIPE).stdout


def main(zr, paths):
    bad = compared = 0
    for path in paths:
        with open(path, 'rb') as file:
            before = cards_of(file.read())
        for version in ('2.1', '3.0', '4.0'):
            after = cards_of(round_trip(zr, path, version))
            old, new = (without_lists(before), without_lists(after)) if version == '2.1' else (before, after)
            for difference in differences(old, new):
                print(f'{os.path.basename(path)} as {version}: {difference}')
                bad += 1
            compared += len(before)
            # That a change would be seen.
            for card in range(len(new)):
                for one in list(new[card]):
                    less = [collections.Counter(each) for each in new]
                    less[card][one] -= 1
                    if one[1] in {each[1] for each in old[card]} and not list(differences(old, less)):
                        print(f'{path}: nobody would miss {one}')
                        bad += 1
    print(f'{compared} cards compared, {bad} differences')
    sys.exit(0 if bad == 0 and compared > 0 else 1)


main(sys.argv[1], sys.argv[2:])
