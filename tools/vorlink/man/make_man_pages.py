#!/usr/bin/env python3
"""Writes the manual pages of the vorlink tool from its own help.

    make_man_pages.py TOOL VERSION OUTDIR

vorlink(1) comes from `vorlink --help`, and vorlink-<command>(1) from
`vorlink <command> --help` for each command that `vorlink --help` lists, all
through help2man. The pages are written gzip-compressed, without a time stamp,
as OUTDIR/<page>.1.gz; pages of commands that are gone are removed.
"""
import glob
import gzip
import os
import re
import stat
import subprocess
import sys
import tempfile

# The examples of a command's help are one command line each; help2man would
# run them together into one paragraph, so each becomes its own.
SPLIT_EXAMPLES = r'''/^[A-Z][A-Za-z ]*:$/ { ex = ($0 == "Examples:") } { print } ex && /^  / { print "" }'''


def commands(tool):
    """The commands that `TOOL --help` lists, with their one-line descriptions."""
    text = subprocess.run([tool, "--help"], capture_output=True, text=True, check=True).stdout
    summary = text.splitlines()[0].rstrip(".")
    block = text.split("\nSubcommands:\n", 1)[1].split("\n\n", 1)[0]
    found = [re.match(r"^  (\S+)\s+(.*)$", line) for line in block.splitlines()]
    if not found or not all(found):
        raise SystemExit(f"{tool} --help lists no commands in the form '  NAME  description'")
    return summary, [(m[1], m[2]) for m in found]


def help2man(program, name, version, see_also, out):
    include = program + ".h2m"
    with open(include, "w") as f:
        f.write("[SEE ALSO]\n" + ",\n".join(f".BR {page} (1)" for page in see_also) + "\n")
    page = subprocess.run(["help2man", "--no-info", "--section=1", f"--version-string={version}", f"--include={include}",
                           f"--name={name}", f"--source=Vorlink {version}", "--manual=Vorlink", program],
                          capture_output=True, text=True)
    if page.returncode != 0 or not page.stdout:
        raise SystemExit(f"help2man {program}: {page.stderr.strip()}")
    with open(out, "wb") as raw, gzip.GzipFile(filename="", mode="wb", fileobj=raw, mtime=0, compresslevel=9) as f:
        f.write(page.stdout.encode())


def main(argv):
    if len(argv) != 4:
        raise SystemExit(__doc__)
    tool, version, outdir = os.path.abspath(argv[1]), argv[2], argv[3]
    os.makedirs(outdir, exist_ok=True)
    summary, listed = commands(tool)
    written = set()
    with tempfile.TemporaryDirectory() as scratch:
        # help2man names a page after the program it runs: one small script per page.
        for page, args, name in [("vorlink", "", summary)] + [(f"vorlink-{c}", c, d) for c, d in listed]:
            program = os.path.join(scratch, page)
            with open(program, "w") as f:
                f.write(f"#!/bin/sh\n'{tool}' {args} \"$@\" | awk '{SPLIT_EXAMPLES}'\n")
            os.chmod(program, stat.S_IRWXU)
            out = os.path.join(outdir, f"{page}.1.gz")
            see_also = [f"vorlink-{c}" for c, _ in listed] if page == "vorlink" else ["vorlink"]
            help2man(program, name, version, see_also, out)
            written.add(out)
    for old in set(glob.glob(os.path.join(outdir, "*.1.gz"))) - written:
        os.unlink(old)


if __name__ == "__main__":
    main(sys.argv)
