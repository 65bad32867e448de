#!/usr/bin/env python3
"""The tool's manual pages against its help: vorlink(1) and one
vorlink-<command>(1) for every command that `vorlink --help` lists, each
rendering with `man -l` without a warning, with its name and one-line
description, and with every option and positional of the command's help.

    man_test.py TOOL MAN_DIR
"""
import os
import re
import subprocess
import sys
import unittest

TOOL, MAN_DIR = sys.argv[1:3]
del sys.argv[1:3]


def help_of(*command):
    return subprocess.run([TOOL, *command, "--help"], capture_output=True, text=True, check=True).stdout


def render(page):
    env = dict(os.environ, LANG="C", LC_ALL="C", MANWIDTH="1000", MAN_KEEP_FORMATTING="")
    run = subprocess.run(["man", "--warnings", "-l", os.path.join(MAN_DIR, page + ".1.gz")],
                         capture_output=True, text=True, env=env)
    return run.returncode, run.stdout, run.stderr


def options(text, section):
    """The option and positional names of a help text's section ('Options', 'Positionals')."""
    block = text.split(f"\n{section}:\n", 1)[1].split("\n\n", 1)[0] if f"\n{section}:\n" in text else ""
    return [m[1] for m in re.finditer(r"^  (\S+(?: \S+)?)\s{2,}", block, re.M)]


class ManPages(unittest.TestCase):
    def test_one_page_per_command_and_no_other(self):
        listed = options(help_of(), "Subcommands")
        self.assertIn("decode", listed)
        pages = sorted(f[:-len(".1.gz")] for f in os.listdir(MAN_DIR) if f.endswith(".1.gz"))
        self.assertEqual(pages, sorted(["vorlink"] + [f"vorlink-{c}" for c in listed]))

    def test_each_page_renders_with_its_name_and_every_option_of_its_help(self):
        top = help_of()
        descriptions = dict(re.findall(r"^  (\S+)\s{2,}(.+)$", top.split("\nSubcommands:\n", 1)[1], re.M))
        for command in [None] + options(top, "Subcommands"):
            page = "vorlink" if command is None else f"vorlink-{command}"
            text = help_of() if command is None else help_of(command)
            with self.subTest(page=page):
                status, shown, warnings = render(page)
                self.assertEqual((status, warnings), (0, ""))
                shown = re.sub(r"\s+", " ", shown)
                name = top.splitlines()[0].rstrip(".") if command is None else descriptions[command]
                self.assertIn(f"NAME {page} - {re.sub(chr(32) + '+', ' ', name)}", shown)
                self.assertIn("SYNOPSIS vorlink" + (f" {command}" if command else ""), shown)
                for option in options(text, "Options") + options(text, "Positionals"):
                    self.assertIn(option.split()[0], shown)
                self.assertIn("SEE ALSO " + ("vorlink-decode(1)" if command is None else "vorlink(1)"), shown)


if __name__ == "__main__":
    unittest.main(verbosity=1)
