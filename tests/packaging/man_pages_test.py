#!/usr/bin/env python3
"""Every option and command a program's --help names must appear in its manual page
(docs/man/<program>.1.md), and every program's --version must print the project version.

usage: man_pages_test.py MAN_DIR VERSION PROGRAM_PATH...

Failures name each missing item, e.g. "varkel-cli.1.md: command 'stream' (no '## stream'
section)" or "varkel-cli.1.md, section 'restore': --rollback".
"""
import os
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])(--?[A-Za-z][\w-]*)")


def run(argv):
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen", HOME=os.environ.get("HOME", "/nonexistent"))
    p = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=env, timeout=60)
    return p.returncode, p.stdout


def help_options(text):
    """Options in the first column of a help text: lines starting with a dash."""
    found = []
    for line in text.splitlines():
        stripped = line.lstrip()
        if not stripped.startswith("-") or line == stripped:
            continue
        column = re.split(r"\s{2,}", stripped)[0]
        for name in OPTION.findall(column):
            if name not in found:
                found.append(name)
    return found


def help_subcommands(text):
    """The names listed under the help's "Subcommands:" heading."""
    names, inside = [], False
    for line in text.splitlines():
        if line.strip().lower() == "subcommands:":
            inside = True
        elif inside and not line.strip():
            break
        elif inside:
            names.append(line.split()[0])
    return names


def mentions(text, option):
    return re.search(r"(?<![\w-])" + re.escape(option) + r"(?![\w-])", text) is not None


def section(page, name):
    """The text of the '## name ...' subsection, or None when there is none."""
    m = re.search(r"^## " + re.escape(name) + r"(?:[ \t][^\n]*)?$(.*?)(?=^#|\Z)", page, re.M | re.S)
    return m.group(1) if m else None


def check_program(program, page_name, page):
    """The missing items of one program, as lines of text."""
    missing = []
    status, text = run([program, "--help"])
    if status != 0:
        return ["%s --help: exit status %d" % (program, status)]
    for opt in help_options(text):
        if not mentions(page, opt):
            missing.append("%s: %s" % (page_name, opt))
    for sub in help_subcommands(text):
        body = section(page, sub)
        if body is None:
            missing.append("%s: command '%s' (no '## %s' section)" % (page_name, sub, sub))
            continue
        status, sub_text = run([program, sub, "--help"])
        for opt in help_options(sub_text):
            if opt not in ("-h", "--help") and not mentions(body, opt):
                missing.append("%s, section '%s': %s" % (page_name, sub, opt))
    return missing


def main(argv):
    man_dir, version, programs = argv[1], argv[2], argv[3:]
    failures = []
    for program in programs:
        name = os.path.basename(program)
        page_name = name + ".1.md"
        try:
            with open(os.path.join(man_dir, page_name), encoding="utf-8") as f:
                page = f.read()
        except OSError as e:
            failures.append("%s: no manual page (%s)" % (name, e))
            continue
        failures += check_program(program, page_name, page)
        status, text = run([program, "--version"])
        if status != 0 or text.strip() != "%s %s" % (name, version):
            failures.append("%s --version: %r (status %d), not '%s %s'" % (name, text.strip(), status, name, version))
        # The check itself must see a gap: a page without the last option is reported.
        options = help_options(run([program, "--help"])[1])
        if options:
            holed = re.sub(r"(?<![\w-])" + re.escape(options[-1]) + r"(?![\w-])", "", page)
            if not any(options[-1] in line for line in check_program(program, page_name, holed)):
                failures.append("%s: the check did not notice %s taken out of the page" % (name, options[-1]))
    if failures:
        print("Missing from the manual pages (docs/man/):")
        for line in failures:
            print("  " + line)
        return 1
    print("manual pages cover every option and command of: " + ", ".join(os.path.basename(p) for p in programs))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
