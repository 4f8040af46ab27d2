#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Goal: the manual page has everything that the program's help has, as it stands there.

Method: the page is made as the build makes it, and again from the help of a program that has every
character that means something to the formatter; groff formats both without a warning, and what
comes out is compared with the help. Ends with 77 where groff is not installed.
"""
import os
import re
import shutil
import subprocess
import sys

from rig import PROGRAM, Rig, main

MAKE_MAN = os.path.join(os.environ["PENSTOCK_SOURCE"], "packaging", "make_man.py")

NASTY_HELP = r"""
import sys
TOP = '''Keeps copies of \\fBbold\\fR things in C:\\new and "quotes".
Usage: penstock [OPTIONS] SUBCOMMAND

Options:
  -h,--help                   Print this help message and exit

Subcommands:
  odd                         .What it 'does', \\"really

Exit codes: 0 done, 1 different, at least, 9 other (see 0).
'''
ODD = '''.br is no request here
Usage: penstock odd [OPTIONS] NAME="A B" ^~`

Positionals:
  .FILE TEXT "x y"            .so /etc/passwd
  'NAME TEXT                  'tis a name

Options:
  -h,--help                   Print this help message and exit
  --back-slash TEXT=\\         \\n(.x \\*[x] \\fB, even \\\\ and \\
  --two-lines UINT:INT in [0 - 10000000]=60
                              .begins with a dot: a ^ b ~ c ` d ' e " f
                              'continued' -- and on

.Prints - and --, as they are.
Example: penstock odd '.x' "a\\b" --two-lines=-1
'''
print(ODD if 'odd' in sys.argv else TOP, end='')
"""


def plain(text):
    return re.sub(r"\s+", " ", text)


class Manual(Rig):
    def format(self, page):
        """As text: no hyphenation, no line broken. Every warning is an error."""
        done = subprocess.run(["groff", "-man", "-ww", "-b", "-Tutf8", "-P-c", "-P-b", "-P-o",
                               "-P-u", "-rHY=0", "-rLL=2000n"], input=page, encoding="utf-8",
                              capture_output=True, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def make(self, program):
        version = "1.2.3"
        done = subprocess.run([sys.executable, "-B", MAKE_MAN, program, version], text=True,
                              capture_output=True, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn(version, done.stdout.splitlines()[0])
        return done.stdout

    def entries(self, text):
        """Of a formatted page: {section: [(term, meaning)]}, and the lines of each section."""
        sections = {}
        for section in re.split(r"^(?=\S)", text, flags=re.M):
            title, _, body = section.partition("\n")
            sections[title] = [line.strip() for line in body.splitlines() if line.strip()]
        return sections

    def help(self, program, *command):
        done = subprocess.run([program, *command, "--help"], capture_output=True, text=True,
                              check=True, timeout=60)
        return done.stdout

    def assert_has(self, lines, text, title):
        """What the help lists, with its meaning: on the same line in the page, or on the next."""
        section = re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.M)
        if title == "Options":
            self.assertTrue(section, text)
        found = plain("\n".join(lines))
        entries = re.split(r"^  (?=\S)", section.group(1), flags=re.M)[1:] if section else []
        for entry in entries:
            self.assertIn(f" {plain(entry.strip())} ", f" {found} ")
        return len(entries)

    def check_page(self, program):
        page = self.make(program)
        for line in page.splitlines():
            if not line.startswith((".SH ", ".TH ")):
                # Some formatters make other signs of these: what is copied from the page must run.
                bare = re.sub(r"\\\(..|\\.", "", line)
                self.assertNotRegex(bare, r"[-^~`'\"]", line)
        sections = self.entries(self.format(page))
        top = self.help(program)
        options = self.assert_has(sections["DESCRIPTION"], top, "Options")
        self.assertIn(top.splitlines()[0], plain(" ".join(sections["DESCRIPTION"])))
        listed = re.search(r"^Subcommands:\n((?:  .*\n)+)", top, re.M)
        self.assertTrue(listed, top)
        commands = re.findall(r"^  (\S+)", listed.group(1), re.M)
        for command in commands:
            text, lines = self.help(program, command), sections[command.upper()]
            about, usage = text.splitlines()[:2]
            self.assertEqual(lines[:2], [usage.removeprefix("Usage: "), about])
            self.assert_has(lines, text, "Positionals")
            options += self.assert_has(lines, text, "Options")
            behind = text.rstrip("\n").rpartition("\n\n")[2].splitlines()
            if not behind[0].endswith(":"):
                self.assertEqual(lines[-len(behind):], behind)
        return commands, options, sections

    def test_the_page_has_every_subcommand_and_option(self):
        commands, options, _ = self.check_page(PROGRAM)
        self.assertEqual(commands, ["replicate", "target", "sync", "serve", "point", "check", "pause",
                                    "resume", "limit-rate", "verify", "status", "inspect",
                                    "keygen"])
        self.assertGreater(options, 50)

    def test_the_plugins_page_has_every_key(self):
        about = ["group=NAME            (required) of the group", "x | y",
                 "tls-certs=DIR | tls-psk=FILE | plaintext=true   (required) as of 'sync'",
                 "metrics=ADDR:PORT     serve \\fBmetrics there", "log-format=text       text"]
        help_text = "\n".join(["nbdkit --help", "", "plugin: penstock (penstock live capture)",
                               "(plugin.so)", "Serves 'volumes'", *about])
        nbdkit = self.path("nbdkit")
        self.write("nbdkit", f"#!{sys.executable}\nprint({help_text!r})\n".encode())
        os.chmod(nbdkit, 0o755)
        done = subprocess.run([sys.executable, "-B", MAKE_MAN, "--plugin", nbdkit, "plugin.so",
                               "1.2.3"], text=True, capture_output=True, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        sections = self.entries(self.format(done.stdout))
        self.assertIn("Serves 'volumes'.", sections["DESCRIPTION"])
        keys = plain("\n".join(sections["KEYS"]))
        for line in about[:1] + about[2:]:
            self.assertIn(plain(line), keys)
        self.assertNotIn("x | y", keys)

    def test_the_page_has_every_exit_code(self):
        lines = self.entries(self.format(self.make(PROGRAM)))["EXIT STATUS"]
        codes = dict(re.fullmatch(r"(\d) +(.+)", line).groups() for line in lines)
        for code, word in (("0", "done"), ("1", "different"), ("2", "usage or refused"),
                           ("3", "failed"), ("4", "interrupted (the same command goes on)")):
            self.assertIn(word, codes.pop(code))
        self.assertEqual(codes, {})

    def test_nothing_is_broken_by_what_the_formatter_takes_for_its_own(self):
        program = self.path("nasty")
        self.write("nasty", f"#!{sys.executable}{NASTY_HELP}".encode())
        os.chmod(program, 0o700)
        commands, options, sections = self.check_page(program)
        self.assertEqual((commands, options), (["odd"], 4))
        self.assertEqual([plain(line) for line in sections["EXIT STATUS"]],
                         ["0 done", "1 different, at least", "9 other (see 0)"])


if __name__ == "__main__":
    if not shutil.which("groff"):
        print("skipped: groff is not installed (package groff-base)")
        sys.exit(77)
    main()
