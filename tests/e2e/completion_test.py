#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Goal: in bash, zsh and fish, completion offers what the program takes, and nothing else.

Method: each shell itself completes a line: bash by calling the function as it would, zsh at a
terminal, with the builtin that takes what is offered replaced by one that prints it, fish by
`complete -C`. What there is to offer is read from the program's help, here once more. A shell that
is not installed is named as skipped.
"""
import os
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

PENSTOCK = os.environ["PENSTOCK"]
PACKAGING = os.path.join(os.environ["PENSTOCK_SOURCE"], "packaging")
LIMIT = 30  # seconds
VALUES = {"--compress": ["none", "lz4", "zstd", "auto"], "--log-format": ["text", "json"],
          "--log-level": ["trace", "debug", "info", "warning", "error"]}


def need(condition, text):
    if not condition:
        raise AssertionError(text)


def listed(title, *command):
    """A section of the help: {name: meaning}."""
    text = subprocess.run([PENSTOCK, *command, "--help"], capture_output=True, text=True,
                          check=True).stdout
    found = {}
    section = re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.M)
    need(section, f"the help of {command} has no {title}")
    for entry in re.split(r"^  (?=\S)", section.group(1), flags=re.M)[1:]:
        parts = re.split(r"\s{2,}|\n\s+", entry.strip(), maxsplit=1)
        for name in parts[0].split()[0].split(","):
            found[name] = re.sub(r"\s+", " ", parts[1]) if len(parts) > 1 else ""
    return found


class Bash:
    """Without meanings: it shows none."""

    has_meanings = False

    def complete(self, folder, line):
        # As bash does, "=" is a word of its own.
        words = [word for part in line.split(" ") for word in re.findall(r"=|[^=]+", part) or [""]]
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _penstock; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(["bash", "--norc", "-c", script, "bash",
                               os.path.join(PACKAGING, "penstock.bash"), *words], cwd=folder,
                              capture_output=True, text=True, check=True, timeout=LIMIT)
        need(not done.stderr, f"bash, {line!r}: {done.stderr}")
        before = line.split(" ")[-1].rpartition("=")
        return {before[0] + before[1] + word: "" for word in done.stdout.splitlines() if word}


class Fish:
    has_meanings = True

    def complete(self, folder, line):
        script = "source $argv[1]; complete -C $argv[2]"
        done = subprocess.run(["fish", "--no-config", "-c", script,
                               os.path.join(PACKAGING, "penstock.fish"), line], cwd=folder,
                              capture_output=True, text=True, check=True, timeout=LIMIT,
                              env={**os.environ, "HOME": folder, "XDG_DATA_DIRS": folder})
        need(not done.stderr, f"fish, {line!r}: {done.stderr}")
        return dict((each.split("\t") + [""])[:2] for each in done.stdout.splitlines())


# What is offered is printed, as "<<word>>", with the lines that would be shown for it.
ZSH = r"""
unset zle_bracketed_paste; unsetopt prompt_sp beep
fpath=($PACKAGING $fpath); autoload -Uz compinit; compinit -D -u
zstyle ':completion:*' list-separator '|'; zstyle ':completion:*' insert-tab false
compadd() {
  local -a hits shown
  local at=${argv[(i)-d]}
  if [[ ${argv[1,(i)(-|--)]} == *' -'(O|A|D)' '* || $1 == -(O|A|D) ]]; then
    builtin compadd "$@"
    return
  fi
  builtin compadd -A hits "$@"
  local name= entry=${argv[at+1]}
  (( at < $# )) && [[ $entry != '('* ]] && shown=("${(@P)entry}")
  local each
  for each in $hits; do print -r -- "<<$IPREFIX$each>>${shown[(r)${(b)each} *]}"; done
  builtin compadd "$@"
}
PROMPT='ready> '
"""


class Zsh:
    has_meanings = True

    def read_until(self, fd, mark):
        text, until = "", time.monotonic() + LIMIT
        while mark not in text:
            need(time.monotonic() < until, f"zsh does not answer: {text!r}")
            if select.select([fd], [], [], 0.1)[0]:
                text += os.read(fd, 65536).decode(errors="replace")
        return text

    def complete(self, folder, line):
        with open(os.path.join(folder, ".zshsetup"), "w", encoding="utf-8") as file:
            file.write(ZSH)
        pid, fd = pty.fork()
        if pid == 0:
            os.chdir(folder)
            os.environ.update(TERM="dumb", HOME=folder, PACKAGING=PACKAGING, COLUMNS="400")
            os.execvp("zsh", ["zsh", "-f", "-i"])
        try:
            os.write(fd, b"stty -echo cols 400 rows 200; source ./.zshsetup\n")
            self.read_until(fd, "ready> ")
            # The second line is read when the completion of the first is over.
            os.write(fd, line.encode() + b"\t\x15print END$((6 * 7))\n")
            text = self.read_until(fd, "END42")
        finally:
            os.close(fd)
            os.waitpid(pid, 0)
        return {word: shown.partition("|")[2].strip()
                for word, shown in re.findall(r"<<(.*?)>>([^\r\n]*)", text)}


def check_names(shell, folder):
    commands = listed("Subcommands")
    found = shell.complete(folder, "penstock ")
    need(set(commands) <= set(found), f"offers {sorted(found)}")
    need(list(shell.complete(folder, "penstock sy")) == ["sync"], "'sy' is not sync alone")
    need("--version" in shell.complete(folder, "penstock --v"), "no --version")
    if shell.has_meanings:
        need(found["sync"] == commands["sync"], f"sync means {found['sync']!r}")
    for command in commands:
        options = {o: text for o, text in listed("Options", command).items() if o[:2] == "--"}
        found = shell.complete(folder, f"penstock {command} --")
        need(set(found) == set(options),
             f"{command}: offers {sorted(found)}, not {sorted(options)}")
        if shell.has_meanings:
            need(found == options, f"{command}: {found} instead of {options}")
    need(list(shell.complete(folder, "penstock sync --re")) == ["--retry-for"], "no --retry-for")


def check_values(shell, folder):
    meanings = listed("Options", "sync")
    for option, values in VALUES.items():
        need(set(re.findall(r"\w+", meanings[option])) - {"or", "LEVEL"} == set(values),
             f"{option} takes others now: {meanings[option]}")
        found = shell.complete(folder, f"penstock sync {option} ")
        need(set(found) == set(values), f"{option}: offers {sorted(found)}")
        begun = f"{option}={values[1][:1]}"
        found = shell.complete(folder, f"penstock sync {begun}")
        need(list(found) == [f"{option}={values[1]}"], f"{begun}: offers {sorted(found)}")
    found = shell.complete(folder, "penstock point --wait ")
    need(set(found) == {"durable", "applied", "flushed"}, f"--wait: offers {sorted(found)}")
    found = shell.complete(folder, "penstock sync --group ")
    need(not found, f"of --group nothing is known, and offered is {sorted(found)}")


def check_files(shell, folder):
    def names(line):
        return {word.rpartition("=")[2].rstrip("/").replace("\\", "")
                for word in shell.complete(folder, "penstock " + line)}

    need(names("sync db=disk") == {"disk.img", "disk two.img", "disks"}, names("sync db=disk"))
    need(names("sync db=disk.") == {"disk.img"}, f"db=disk.: {names('sync db=disk.')}")
    need({"disk.img", "disks"} <= names("sync db="), f"db=: {names('sync db=')}")
    need(names("replicate disk.") == {"disk.img"}, "a positional is a file")
    need(names("sync --tls-psk disk.") == {"disk.img"}, "a key is a file")
    need(names("target --state dis") == {"disks"}, "a state is a directory")
    below = {os.path.basename(name) for name in names("sync db=./disks/o")}
    need(below == {"one.img"}, f"db=./disks/o: {below}")


def main():
    failed = 0
    for shell in (Bash(), Zsh(), Fish()):
        name = type(shell).__name__.lower()
        if not shutil.which(name):
            need(name != "bash", "bash is not installed")
            print(f"skipped: {name} is not installed", flush=True)
            continue
        with tempfile.TemporaryDirectory(prefix="penstock-completion-") as folder:
            os.mkdir(os.path.join(folder, "disks"))
            for file in ("disk.img", "disk two.img", "disks/one.img"):
                with open(os.path.join(folder, file), "wb"):
                    pass
            for check in (check_names, check_values, check_files):
                what = f"{name}: {check.__name__.removeprefix('check_')}"
                try:
                    check(shell, folder)
                    print("ok:", what, flush=True)
                except AssertionError as fault:
                    failed += 1
                    print(f"FAIL: {what}: {fault}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    os.environ["PATH"] = os.path.dirname(PENSTOCK) + os.pathsep + os.environ["PATH"]
    sys.exit(main())
