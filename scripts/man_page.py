#!/usr/bin/env python3
"""Turns a manual page kept as text (docs/man/*.md) into roff.

The text is a small subset of Markdown:
  # NAME             a section (.SH); ## name a subsection (.SS)
  * **--opt** ARG    a term (.TP); the indented lines below it describe it
  4-space indent     after a blank line: an example, printed as is
  **bold** *italic* `code` inside a line; a blank line starts a paragraph.

usage: man_page.py SOURCE OUTPUT TITLE SECTION VERSION DATE
"""
import re
import sys


def escape(text):
    text = text.replace("\\", "\\e")
    # Options are typed as written: a hyphen in them is a minus sign.
    text = text.replace("-", "\\-")
    return text


def inline(text):
    out = []
    for part in re.split(r"(\*\*[^*]+\*\*|`[^`]+`|\*[^*]+\*)", text):
        if part.startswith("**") and part.endswith("**") and len(part) > 4:
            out.append("\\fB" + escape(part[2:-2]) + "\\fR")
        elif part.startswith("`") and part.endswith("`") and len(part) > 2:
            out.append("\\fB" + escape(part[1:-1]) + "\\fR")
        elif part.startswith("*") and part.endswith("*") and len(part) > 2:
            out.append("\\fI" + escape(part[1:-1]) + "\\fR")
        else:
            out.append(escape(part))
    line = "".join(out)
    # A line starting with a dot or quote would be read as a request.
    if line.startswith((".", "'")):
        line = "\\&" + line
    return line


def convert(lines, title, section, version, date):
    out = ['.TH %s %s "%s" "Varkel %s" "User Commands"' % (title, section, date, version)]
    in_example = False
    blank_before = True
    for raw in lines:
        line = raw.rstrip("\n")
        if in_example and not line.startswith("    ") and line.strip():
            out += [".fi", ".RE"]
            in_example = False
        if not line.strip():
            if in_example:
                out.append("")
            else:
                blank_before = True
            continue
        if line.startswith("    ") and (blank_before or in_example):
            if not in_example:
                out += [".PP", ".RS 4", ".nf"]
                in_example = True
            out.append(inline(line[4:]) if line[4:] else "")
            blank_before = False
            continue
        if line.startswith("## "):
            out.append(".SS " + inline(line[3:]))
        elif line.startswith("# "):
            out.append(".SH " + inline(line[2:].upper()))
        elif line.startswith("* "):
            out += [".TP", inline(line[2:])]
        elif blank_before and not line.startswith(" "):
            out += [".PP", inline(line)]
        else:
            out.append(inline(line.strip()))
        blank_before = False
    if in_example:
        out += [".fi", ".RE"]
    return "\n".join(out) + "\n"


def main(argv):
    if len(argv) != 7:
        sys.stderr.write(__doc__)
        return 2
    source, output, title, section, version, date = argv[1:]
    with open(source, encoding="utf-8") as f:
        text = convert(f.readlines(), title, section, version, date)
    with open(output, "w", encoding="utf-8") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
