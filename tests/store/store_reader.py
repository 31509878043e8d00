#!/usr/bin/python3
"""An independent reader of the store's files, written from the file formats alone.

  store_reader.py rows DIR      every row file of DIR, either form
  store_reader.py journal DIR   the journals below DIR/index

Prints one line per cell, "row column hex" for rows (with " 1" behind an enciphered
cell) and for journals (the indexed cells and `_id`), and a line "row" for each row.
"""
import base64
import os
import re
import struct
import sys

ENTITY = re.compile(rb'&(apos|quot|amp|lt|gt);')
ENTITIES = {b'apos': b"'", b'quot': b'"', b'amp': b'&', b'lt': b'<', b'gt': b'>'}
ELEMENT = re.compile(rb'<([A-Za-z_][A-Za-z0-9_.\-]*)((?:\s+[^>]*?)?)(?:/>|>(.*?)</\1\s*>)', re.S)


def decode_entities(data):
    # One pass: "&amp;lt;" gives "&lt;".
    return ENTITY.sub(lambda m: ENTITIES[m.group(1)], data)


def read_xml(data):
    start = data.find(b'<row>')
    end = data.rfind(b'</row>')
    if start < 0 or end < 0:
        raise ValueError('no row element')
    cells = {}
    for m in ELEMENT.finditer(data[start + 5:end]):
        name, attrs, body = m.group(1).decode(), m.group(2), m.group(3) or b''
        enciphered = b'encrypted="true"' in attrs
        value = decode_entities(body)
        if enciphered or name == '_id':
            value = base64.b64decode(re.sub(rb'\s', b'', value))
        cells[name] = [value.hex(), enciphered]
    return cells


def read_binary(data):
    cells = {}
    at = 4
    while at < len(data):
        head, = struct.unpack('>H', data[at:at + 2])
        n = head & 0x7FFF
        name = data[at + 2:at + 2 + n].decode('latin-1')
        length, = struct.unpack('>I', data[at + 2 + n:at + 6 + n])
        value = data[at + 6 + n:at + 6 + n + length]
        if len(value) != length:
            raise ValueError('value runs past the end')
        cells[name] = [value.hex(), bool(head & 0x8000)]
        at += 6 + n + length
    return cells


def read_rows(directory):
    out = {}
    for name in os.listdir(directory):
        m = re.fullmatch(r'([1-9][0-9]*)\.xml', name)
        if not m or not os.path.isfile(os.path.join(directory, name)):
            continue
        data = open(os.path.join(directory, name), 'rb').read()
        if not data:
            continue
        out[m.group(1)] = read_binary(data) if data[:4] == b'TLVB' else read_xml(data)
    return out


def read_journal(data, rows):
    at, row, column, value = 0, 0, None, b''
    while at < len(data):
        command = data[at:at + 1]
        if command == b'r':
            if at + 5 > len(data):
                break
            row, = struct.unpack('>I', data[at + 1:at + 5])
            rows.setdefault(row, {})
            at += 5
        elif command == b'c':
            n = data[at + 1]
            column = data[at + 2:at + 2 + n].decode('latin-1')
            at += 2 + n
        elif command in (b's', b'v'):
            length, = struct.unpack('>I', data[at + 1:at + 5])
            v = data[at + 5:at + 5 + length]
            if command == b's':
                rows.setdefault(row, {})[column] = v.hex()
            else:
                value = v
            at += 5 + length
        elif command == b'x':
            rows.pop(row, None)
            at += 1
        elif command == b'i':
            count, = struct.unpack('>I', data[at + 1:at + 5])
            for k in range(count):
                r, = struct.unpack('>I', data[at + 5 + 4 * k:at + 9 + 4 * k])
                rows.setdefault(r, {})[column] = value.hex()
            at += 5 + 4 * count
        else:
            raise ValueError('unknown command')


def main():
    kind, directory = sys.argv[1], sys.argv[2]
    if kind == 'rows':
        result = read_rows(directory)
    else:
        rows = {}
        index = os.path.join(directory, 'index')
        for name in sorted(os.listdir(index), key=lambda n: int(n.split('.')[0])):
            read_journal(open(os.path.join(index, name), 'rb').read(), rows)
        result = {str(r): cells for r, cells in rows.items()}
    lines = []
    for row, cells in result.items():
        lines.append(str(row))
        for column, value in cells.items():
            if isinstance(value, list):
                lines.append('%s %s %s%s' % (row, column, value[0], ' 1' if value[1] else ''))
            else:
                lines.append('%s %s %s' % (row, column, value))
    sys.stdout.write(''.join(line + '\n' for line in sorted(lines)))


main()
