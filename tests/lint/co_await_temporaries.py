#!/usr/bin/env python3
"""Fails on a brace inside a co_await expression.

GCC 12 destroys a capturing lambda or a braced temporary that stands inside a
co_await expression twice (GCC bug 100611). In this program that freed a
member's token and silenced the notification feed. Name such values before the
co_await instead. Usage: co_await_temporaries.py ROOT DIR...
"""
import pathlib
import re
import sys


def blanked(source):
    """The source with comments, strings and characters replaced by spaces."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'',
                         re.S)
    return pattern.sub(lambda m: re.sub(r'[^\n]', ' ', m.group()), source)


def operand(text, start):
    """The co_await operand from `start` up to its end at depth zero."""
    depth = 0
    for i in range(start, len(text)):
        c = text[i]
        if c in '([{':
            depth += 1
        elif c in ')]}':
            depth -= 1
            if depth < 0:
                return text[start:i]
        elif c in ';,' and depth == 0:
            return text[start:i]
    return text[start:]


def main():
    root = pathlib.Path(sys.argv[1])
    found = []
    for folder in sys.argv[2:]:
        for path in sorted((root / folder).rglob('*')):
            if path.suffix not in ('.cpp', '.h'):
                continue
            text = blanked(path.read_text(encoding='utf-8'))
            for match in re.finditer(r'\bco_await\b', text):
                if '{' in operand(text, match.end()):
                    line = text.count('\n', 0, match.start()) + 1
                    found.append(f'{path.relative_to(root)}:{line}')
    for place in found:
        print(f'{place}: a braced value or a lambda inside a co_await expression; name it first')
    return 1 if found else 0


if __name__ == '__main__':
    sys.exit(main())
