#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the manual pages from the program's and the plugin's own help, so that they never differ.

usage: make_man.py PENSTOCK VERSION > penstock.1
       make_man.py --plugin NBDKIT PLUGIN VERSION > nbdkit-penstock-plugin.1
"""
import re
import subprocess
import sys

ABOUT = ["The source's volumes are read, compared with the target's block by block, and only what",
         "differs is sent, compressed and checked. A connection that is lost is taken up again; a",
         "run that was interrupted goes on with the same command."]
SPECIAL = {"\\": "\\e", "-": "\\-", "'": "\\(aq", "`": "\\(ga", '"': "\\(dq", "^": "\\(ha",
           "~": "\\(ti"}


def quote(text):
    """Text as it stands, wherever it comes: in a line of its own or behind a macro."""
    text = "".join(SPECIAL.get(c, c) for c in text)
    return "\\&" + text if text[:1] in (".", "") else text


def help_of(program, *command):
    return subprocess.run([program, *command, "--help"], check=True, capture_output=True,
                          text=True).stdout.splitlines()


def entries(lines):
    """Options or subcommands as (name, meaning): what is indented, with what continues it."""
    found = []
    for line in lines:
        match = re.match(r"  (\S.*?)(?:  +(\S.*))?$", line)
        if match:
            found.append([match.group(1), match.group(2) or ""])
        elif re.match(r" {10,}\S", line) and found:
            found[-1][1] = (found[-1][1] + " " + line.strip()).strip()
    return found


def section(lines, title):
    begin = next((i for i, l in enumerate(lines) if l.startswith(title + ":")), None)
    if begin is None:
        return []
    end = next((i for i in range(begin + 1, len(lines)) if not lines[i].strip()), len(lines))
    return entries(lines[begin + 1 : end])


def terms(pairs, macro=".B"):
    """A list of terms, each with its meaning."""
    return [line for term, text in pairs for line in (".TP", f"{macro} {quote(term)}", quote(text))]


def footer(lines):
    """What follows the last section."""
    last = max(i for i, l in enumerate(lines) if l.startswith("  "))
    return [l for l in lines[last + 1 :] if l.strip()]


def exit_codes(lines):
    """Of "Exit codes: 0 done, 1 different.": each code with its meaning."""
    line = next(l for l in lines if l.startswith("Exit codes: ")).removeprefix("Exit codes: ")
    return re.findall(r"(\d) (.*?)(?:, (?=\d )|\.?$)", line)


def plugin_keys(lines):
    """Of the help: "KEY=VALUE   what it means"."""
    found = [re.match(r"(\S+=\S*(?: \| \S+)*) {2,}(\S.*)$", line) for line in lines]
    return [match.groups() for match in found if match]


def plugin(nbdkit, path, version):
    lines = subprocess.run([nbdkit, path, "--help"], check=True, capture_output=True,
                           text=True).stdout.splitlines()
    about = lines[next(i for i, l in enumerate(lines) if l.startswith("plugin: penstock")) :]
    keys = plugin_keys(about)
    example = ("nbdkit penstock group=shop to=backup:7000 state=/var/lib/penstock-shop "
               "tls-certs=/etc/penstock/tls db=/dev/vg/db")
    text = [("Each volume is an export. What is written to it is answered when the volume has it, and "
             "gets to the target in order, as with penstock serve, which runs this plugin."),
            ("Everything that serves NBD is nbdkit's: sockets, TLS of its clients, filters, its log. "
             "It ends when its clients have gone."),
            "penstock status, point, check, pause, resume and limit-rate work with its state=DIR."]
    out = [f'.TH NBDKIT-PENSTOCK-PLUGIN 1 "" "penstock {version}" "User Commands"', ".SH NAME",
           "nbdkit\\-penstock\\-plugin \\- serve volumes, and keep a second copy of them elsewhere",
           ".SH SYNOPSIS", ".B nbdkit penstock", "[\\fIKEY\\fR=\\fIVALUE\\fR] ...",
           ".SH DESCRIPTION", quote(about[2] + ".")]
    for paragraph in text:
        out += [".PP", quote(paragraph)]
    out += [".SH KEYS", *terms(keys), ".SH EXAMPLE", ".B " + quote(example),
            ".SH SEE ALSO", ".BR penstock (1),", ".BR nbdkit (1)"]
    print("\n".join(out))


def manual(program, version):
    top = help_of(program)
    commands = section(top, "Subcommands")
    out = [f'.TH PENSTOCK 1 "" "penstock {version}" "User Commands"', ".SH NAME",
           "penstock \\- keep a verified second copy of disk images and block devices",
           ".SH SYNOPSIS", ".B penstock", ".I COMMAND", "[\\fIOPTIONS\\fR] ...", ".SH DESCRIPTION",
           quote(top[0]), *map(quote, ABOUT)]
    out += terms(section(top, "Options"))
    for name, _ in commands:
        lines = help_of(program, name)
        usage = next(l for l in lines if l.startswith("Usage: ")).removeprefix("Usage: ")
        out += [".SH " + quote(name.upper()), ".B " + quote(usage), ".PP", quote(lines[0])]
        for title in ("Positionals", "Options"):
            out += terms(section(lines, title))
        for line in footer(lines):
            out += [".PP", quote(line)]
    out += [".SH EXIT STATUS", *terms(exit_codes(top))]
    files = [("DST.penstock", "the state of replicate, unless told otherwise"),
             ("STATE/state.db, STATE/journal, STATE/quarantine",
              "a target's state; datasets not yet in the volumes; journal files that were damaged")]
    out += [".SH FILES", *terms(files, ".I"), ".SH SEE ALSO", ".BR nbdkit\\-penstock\\-plugin (1)"]
    print("\n".join(out))


def main():
    if sys.argv[1] == "--plugin":
        plugin(*sys.argv[2:5])
    else:
        manual(*sys.argv[1:3])


if __name__ == "__main__":
    main()
