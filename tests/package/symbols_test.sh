#!/usr/bin/env bash
# Holds the built libraries against their promises: they export what the version scripts list and
# nothing else; the library imports the host contract and, of the C library, only what is named
# here: no thread, no lock, no output, no abort.
#
# usage: symbols_test.sh SOURCE_DIR LIBPENSTOCK LIBPENSTOCK_HOST
set -euo pipefail
source=$1 library=$2 support=$3
failed=0

same() {  # WHAT EXPECTED ACTUAL, each a sorted list
  if ! diff <(echo "$2") <(echo "$3") >/tmp/penstock_symbols.$$; then
    echo "FAIL: $1 ('<' expected, '>' found):"
    c++filt </tmp/penstock_symbols.$$
    failed=1
  else
    echo "ok: $1 ($(echo "$2" | wc -l))"
  fi
  rm -f /tmp/penstock_symbols.$$
}

listed() { sed -n 's/^    \([_A-Za-z0-9]*\);$/\1/p' "$1" | sort -u; }
exported() { nm -D --defined-only "$1" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort -u; }
imported() { nm -D --undefined-only "$1" | awk '{sub(/@.*/, "", $2); print $2}' | sort -u; }

same "exports of libpenstock.so" "$(listed "$source/cmake/penstock.map")" "$(exported "$library")"
same "exports of libpenstock-host.so" "$(listed "$source/cmake/penstock_host.map")" \
  "$(exported "$support")"

# The host contract, as far as the library uses it.
contract=$(sort -u <<'LIST'
TSP_RequestID
_Z12GetMsgPrefixB5cxx11v
_Z15CreateDppHeaderj10DPPCmdType17DPPCmdHeaderFlags
_ZN10FileSystem13CreateDirPathERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
_ZN4UUID8MakeUUIDERK5UuidT
_ZN7CLogger11GetInstanceEv
_ZN7CLogger5LogExEiPKcyS1_iS1_z
_ZN9Coalescer12ResetPendingEv
_ZN9Coalescer7AddDataERK12InternalData
_ZN9CoalescerC1ERK5UuidT
_ZN9CoalescerD1Ev
_ZNK4UUID6StringB5cxx11Ev
_ZNK6QRVTSP3getEv
_ZNK7CLogger8GetLevelEv
_ZNK9Coalescer5CountEv
_ZNK9Coalescer7BuffersB5cxx11Ev
_ZlsRSo10DPPCmdType
_ZlsRSoRK4UUID
LIST
)
imports=$(imported "$library")
same "imports from the host" "$contract" \
  "$(comm -12 <(echo "$imports") <(exported "$support"))"

# Of the C library: memory and text, the calls on dataset files, the wait. All through the dynamic
# linker, so that a test can stand in between.
c_calls=$(sort -u <<'LIST'
__errno_location
close
fsync
lseek64
open
sched_yield
sleep
unlink
write
LIST
)
runtime='^(_Z|__cxa_(allocate_exception|begin_catch|end_catch|free_exception|rethrow|throw|finalize)$'
runtime+='|__gxx_personality_v0$|_Unwind_Resume$|__gmon_start__$|_ITM_|__libc_single_threaded$|__tls_get_addr$'
runtime+='|(mem(chr|cmp|cpy|move|set)|strlen|bcmp)$|__stack_chk_fail$)'
same "calls of the C library" "$c_calls" \
  "$(echo "$imports" | grep -vE "$runtime" | grep -vxF "$contract" || true)"

forbidden='pthread|mutex|condition_variable|_ZNSt6thread(C|D|4join|_M)|__cxa_guard|call_once'
forbidden+='|printf|puts|putchar|fwrite|_ZSt4cout|_ZSt4cerr|_ZSt4clog|_ZSt5wcout'
forbidden+='|^abort$|^_?exit$|_Exit|quick_exit|assert_fail|^signal$|^raise$'
if hits=$(echo "$imports" | grep -E "$forbidden"); then
  echo "FAIL: the library imports what it must not:"
  echo "$hits" | c++filt
  failed=1
else
  echo "ok: no thread, no lock, no output, no abort"
fi

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
if extra=$(echo "$needed" | grep -vE '^(libstdc\+\+|libgcc_s|libc|libm|ld-linux-x86-64)\.so'); then
  echo "FAIL: libpenstock.so needs more than the standard library: $extra"
  failed=1
else
  echo "ok: needs the standard library only"
fi
exit $failed
