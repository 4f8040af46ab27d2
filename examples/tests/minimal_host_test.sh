#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs minimal_host on files made here: what it carries, and each way to call it wrongly.
#
# usage: minimal_host_test.sh PATH-OF-MINIMAL-HOST
set -u

host=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir" || exit 1
failures=0

fail() {
  failures=$((failures + 1))
  printf 'FAILED: %s\n' "$1"
  sed 's/^/  stdout: /' out
  sed 's/^/  stderr: /' err
}

# run CODE ARGUMENT...: runs the program and checks its exit code; an error is one line.
run() {
  local code=$1
  shift
  what="minimal_host $*"
  "$host" "$@" >out 2>err
  local got=$?
  [ "$got" -eq "$code" ] || fail "$what: exit code $got, not $code"
  if [ "$code" -eq 0 ]; then
    [ ! -s err ] || fail "$what: wrote to standard error"
  else
    [ "$(wc -l <err)" -eq 1 ] || fail "$what: an error that is not one line"
  fi
}

# out_has / err_has TEXT: the output has a line that contains TEXT.
out_has() { grep -qF -- "$1" out || fail "$what: no '$1' in standard output"; }
err_has() { grep -qF -- "$1" err || fail "$what: no '$1' in standard error"; }
identical() { [ "$(tail -n 1 out)" = identical ] || fail "$what: not identical"; }

# bytes COUNT LETTER: COUNT bytes of LETTER.
bytes() { head -c "$1" /dev/zero | tr '\0' "$2"; }

# Ten blocks of 4096; blocks 2, 3 and 9 differ; half a block more at the end.
bytes 40960 a >old
{ bytes 8192 a; bytes 8192 b; bytes 20480 a; bytes 4096 c; bytes 2048 d; } >new
: >empty

run 0 --spool kept --dataset 2 --window 1 old new
identical
out_has 'filled        pipes [RECV 2]  [XMIT 1]  [DONE 0:1..2]  [FLUSH ]'
out_has 'acknowledged  pipes [RECV 2]  [XMIT ]  [DONE 0:1..2]  [FLUSH ]'
out_has 'done          pipes [RECV 2]  [XMIT ]  [DONE 0:2]  [FLUSH 0:1]'
out_has 'flushed       pipes [RECV 2]  [XMIT ]  [DONE 0:2]  [FLUSH ]'
out_has 'closed        pipes [RECV ]  [XMIT 2]  [DONE 0:2]  [FLUSH ]'
out_has '4 of 11 blocks changed: 14336 bytes in 2 datasets'
[ "$(find kept -name '*.ds' | wc -l)" -eq 2 ] || fail "$what: not two dataset files"

run 0 --demo
identical
run 0 --demo --block=512 --dataset=4096 --window 1024
identical
run 0 --block 1048576 --dataset 1 old new
identical
run 0 new old
identical
run 0 old old
identical
out_has '0 of 10 blocks changed: 0 bytes in 0 datasets'
run 0 empty new
identical
run 0 new empty
identical
cp -- new ./--help
run 0 old -- --help
identical
run 0 --help
out_has SYNOPSIS
run 0 --version
out_has 'minimal_host 0.'

"$host" --log debug old new >out 2>err || fail 'minimal_host --log debug'
err_has 'Pipeline::PushDs()'

run 2
err_has '0 files named: name two, OLD and NEW, or say --demo'
run 2 old
err_has '1 files named'
run 2 old new old
err_has '3 files named'
run 2 --demo old new
err_has '--demo makes its own two files'
run 2 --nonsense old new
err_has "unknown option '--nonsense': see minimal_host --help"
run 2 --demo=yes
err_has '--demo takes no value'
run 2 old new --block
err_has '--block needs a value'
run 2 --block 0 old new
err_has 'give a whole number from 512 to 1048576'
run 2 --block 1000 old new
err_has 'give a multiple of 512'
run 2 --block 4096x old new
err_has "--block '4096x'"
run 2 --block 99999999999999999999 old new
run 2 --dataset -1 old new
run 2 --window 0 old new
run 2 --block 1048576 --dataset 65 old new
err_has 'more than 67108864 bytes'
run 2 --log loud old new
err_has 'give debug, info, notice or error'
run 2 --spool= old new
err_has "--spool '': name a directory"

run 1 missing new
err_has "'missing' can't be opened (No such file or directory)"
run 1 old .
err_has "'.' is a directory: name a file"
run 1 --spool kept old new
err_has "the spool 'kept' is not an empty directory"
run 1 --spool new old new
err_has "the spool 'new' is not an empty directory"
run 1 --spool /proc/spool old new
err_has "dataset 1 can't be stored below '/proc/spool': make room there"
TMPDIR=$dir/nowhere run 1 old new
err_has 'set TMPDIR to a directory that may be written'

what='minimal_host >/dev/full'
"$host" --version >/dev/full 2>err && fail 'a full standard output passed'
err_has "standard output can't be written"

# A file that may not grow beyond 8 KiB stands for a full disk: what was begun is taken away.
what='minimal_host on a full disk'
(
  trap '' XFSZ
  export GCOV_PREFIX=$PWD/gcov  # a build that counts coverage must not write its counts cut short
  ulimit -f 8
  "$host" --spool full old new >out 2>err
)
code=$?
[ "$code" -eq 1 ] || fail "$what: exit code $code, not 1"
err_has "dataset 1 can't be stored below 'full'"
[ -z "$(find full -name '*.ds')" ] || fail "$what: a part of a dataset file was left"

if [ "$failures" -ne 0 ]; then
  printf '%s checks failed\n' "$failures"
  exit 1
fi
echo 'minimal_host: all as documented'
