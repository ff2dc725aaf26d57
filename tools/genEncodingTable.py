#!/usr/bin/env python3
"""Generates lib/unicode/encodingTable.inc, the encoding-name table.

Run from the top of the tree after building the ICU dump tool:
    cmake --build build --target icuDump
    python3 tools/genEncodingTable.py build/lib/unicode/icuDump > lib/unicode/encodingTable.inc

Inputs:
  tools/data/encodingRows.txt     the rows in table order: preferred name, enumeration value,
                                  supported flag (1/0)
  tools/data/ianaMibEnums.txt     IANA registry: MIBenum and registered name
  tools/data/windowsCodePages.txt Windows code page identifiers and their charset names
  ICU's converter alias table     through the icuDump tool (aliases, IANA/MIME/WINDOWS names)

Each row's names: for the row that owns an ICU converter, the converter's IANA names first,
then the preferred name, then ICU's other aliases, then "Windows-<code page>". A name is used
by one row only (the first), and the preferred name of a row never appears in another row, so
every preferred name finds its own row. A code page goes to the first row without one that is
named "windows-<page>", the page's charset name or "ibm-<page>".
"""
import os
import re
import subprocess
import sys

MAX_NAMES = 21
HERE = os.path.dirname(os.path.abspath(__file__))


def data_lines(name):
    with open(os.path.join(HERE, 'data', name), encoding='utf-8') as f:
        for line in f:
            line = line.rstrip('\n')
            if line and not line.startswith('#'):
                yield line


def reduce_name(name):
    return re.sub(r'[^a-z0-9]', '', name.lower())


def main():
    tool = sys.argv[1]
    rows = []
    for line in data_lines('encodingRows.txt'):
        name, enc, supported = line.split('\t')
        rows.append({'pref': name, 'enc': int(enc), 'supported': supported == '1',
                     'conv': None, 'names': [], 'mib': -1, 'cp': None})
    assert len(rows) == 325
    assert sorted({r['enc'] for r in rows}) == list(range(324))

    converters = {}
    dump = subprocess.run([tool], check=True, capture_output=True, text=True).stdout
    for line in dump.splitlines():
        fields = line.split('\t')
        conv = {'aliases': [], 'IANA': [], 'MIME': [], 'WINDOWS': []}
        for f in fields[1:]:
            if f.startswith('@'):
                std, value = f[1:].split('=', 1)
                conv[std].append(value)
            else:
                conv['aliases'].append(f)
        converters[fields[0]] = conv

    query = '\n'.join(r['pref'] for r in rows) + '\n'
    resolved = subprocess.run([tool, '--resolve'], input=query, check=True,
                              capture_output=True, text=True).stdout.splitlines()
    for row, line in zip(rows, resolved):
        conv = line.split('\t')[1]
        row['resolved'] = None if conv == '-' else conv
        if conv != '-' and conv not in converters:
            converters[conv] = {'aliases': [conv], 'IANA': [], 'MIME': [], 'WINDOWS': []}

    # A converter belongs to the row named like it (its canonical, first IANA or first MIME
    # name); otherwise to the first row that resolves to it.
    owner = {}
    for row in rows:
        conv = row['resolved']
        if conv is None or conv in owner:
            continue
        c = converters[conv]
        primary = [conv] + c['IANA'][:1] + c['MIME'][:1]
        if row['pref'].lower() in (p.lower() for p in primary):
            owner[conv] = row
    for row in rows:
        conv = row['resolved']
        if conv is not None and conv not in owner:
            owner[conv] = row
    for conv, row in owner.items():
        row['conv'] = conv

    preferred = {r['pref'].lower() for r in rows}
    used = set()
    for row in rows:
        candidates = [row['pref']]
        if row['conv'] is not None:
            c = converters[row['conv']]
            candidates = c['IANA'] + [row['pref']] + c['aliases']
        for name in candidates:
            low = name.lower()
            own = low == row['pref'].lower()
            if own:
                name = row['pref']
            if any(n.lower() == low for n in row['names']):
                continue
            if not own and (low in used or low in preferred):
                continue
            row['names'].append(name)
            used.add(low)

    def rows_named(name):
        low = name.lower()
        exact = [r for r in rows if any(n.lower() == low for n in r['names'])]
        if exact:
            return exact
        red = reduce_name(name)
        return [r for r in rows if any(reduce_name(n) == red for n in r['names'])]

    for line in data_lines('windowsCodePages.txt'):
        cp, name = line.split(' ', 1)
        cp = int(cp)
        candidates = rows_named('windows-%d' % cp) + rows_named(name) + rows_named('ibm-%d' % cp)
        for row in candidates:
            if row['cp'] is None:
                row['cp'] = cp
                win = 'Windows-%d' % cp
                if win.lower() not in used and not any(n.lower() == win.lower()
                                                        for n in row['names']):
                    row['names'].append(win)
                    used.add(win.lower())
                break

    for line in data_lines('ianaMibEnums.txt'):
        mib, name = line.split(' ', 1)
        for row in rows_named(name):
            if row['mib'] == -1:
                row['mib'] = int(mib)
                break

    out = sys.stdout
    out.write('/* Generated by tools/genEncodingTable.py from ICU %s; do not edit. */\n'
              % os.environ.get('ICU_VERSION_NOTE', 'alias data'))
    for row in rows:
        names = row['names']
        if len(names) > MAX_NAMES:
            keep = names[:MAX_NAMES]
            if row['pref'] not in keep:
                keep[-1] = row['pref']
            names = keep
        pref_index = names.index(row['pref'])
        cp = '0xFFFFFFFFu' if row['cp'] is None else '%du' % row['cp']
        quoted = ', '.join('"%s"' % n.replace('\\', '\\\\').replace('"', '\\"') for n in names)
        out.write('{%d, %s, %d, %s, %d, {%s}},\n'
                  % (row['mib'], cp, row['enc'], 'true' if row['supported'] else 'false',
                     pref_index, quoted))


if __name__ == '__main__':
    main()
