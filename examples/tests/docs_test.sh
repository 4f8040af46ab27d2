#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Holds the documents to the programs: each piece of C++ in them is, word for word, a piece of a
# file that is compiled; each output that they show is what the program prints; each link, header
# and test that they name exists.
#
# In a document, a line "<!-- quote: FILE NAME -->" stands before a block that is the piece of
# examples/FILE between "// [quote: NAME]" and "// [end]"; "<!-- output: NAME -->" before one that
# the program NAME prints.
#
# usage: docs_test.sh SOURCE-FOLDER PROGRAM-FOLDER
#
# shellcheck disable=SC2016  # the documents' own backquotes, not the shell's
set -u

root=$1
programs=$2
failures=0
checks=0

fail() {
  failures=$((failures + 1))
  printf 'FAILED: %s\n' "$1"
}

# block DOCUMENT LINE: the fenced block that begins after LINE.
block() {
  awk -v from="$2" 'NR > from && /^```/ { if (inside) exit; inside = 1; next } inside' "$1"
}

# piece FILE NAME: the lines between its markers, moved left by the markers' own indentation.
piece() {
  awk -v name="// [quote: $2]" '
    !inside {
      margin = index($0, name)
      inside = margin && substr($0, margin) == name
      next
    }
    substr($0, margin) == "// [end]" { exit }
    { print substr($0, margin) }' "$1"
}

# same WHAT EXPECTED ACTUAL
same() {
  checks=$((checks + 1))
  [ -n "$2" ] || fail "$1: there is nothing to compare with"
  [ "$2" = "$3" ] || {
    fail "$1 differs (expected <, documented >)"
    diff <(printf '%s\n' "$2") <(printf '%s\n' "$3")
  }
}

output_of() {
  local spool
  spool=$(mktemp -d)
  case $1 in
    format_example) "$programs/format_example" "$spool" ;;
    *) "$programs/$1" ;;
  esac
  rm -rf "$spool"
}

check_quotes() {
  local doc=$1 line kind file name
  while IFS=: read -r line kind; do
    read -r _ _ file name _ <<<"$kind"
    same "$doc:$line, quote $name" \
      "$(piece "$root/examples/$file" "$name")" "$(block "$doc" "$line")"
  done < <(grep -n '^<!-- quote: ' "$doc")
  while IFS=: read -r line kind; do
    read -r _ _ name _ <<<"$kind"
    same "$doc:$line, output $name" "$(output_of "$name")" "$(block "$doc" "$line")"
  done < <(grep -n '^<!-- output: ' "$doc")
  # A block of C++ without a quote in front of it would not be compiled.
  awk -v doc="$doc" '/^```cpp/ && last !~ /^<!-- quote: / { print doc ":" NR } { last = $0 }' "$doc"
}

check_links() {
  local doc=$1 target
  while read -r target; do
    checks=$((checks + 1))
    [ -e "$(dirname "$doc")/$target" ] || fail "$doc links to $target, which is not there"
  done < <(awk '/^```/ { inside = !inside; next } !inside' "$doc" |
    grep -o '](\([^)#:]*\))' | sed 's/^](//; s/)$//' | grep -v '^$')
}

# Tests are named `Suite.Name`.
check_tests() {
  local doc=$1 name
  while read -r name; do
    checks=$((checks + 1))
    grep -rqE "TEST(_F|_P)?\(${name%.*}, *${name#*.}\)" "$root/tests" ||
      fail "$doc names the test $name, which is not there"
  done < <(grep -oE '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9]+`' "$doc" | tr -d '`' | sort -u)
}

# Headers are named `penstock/....h`.
check_headers() {
  local doc=$1 name
  while read -r name; do
    checks=$((checks + 1))
    [ -e "$root/include/$name" ] || fail "$doc names $name, which is not there"
  done < <(grep -oE '`penstock/[a-z_/]+\.h`' "$doc" | tr -d '`' | sort -u)
}

for doc in "$root"/*.md "$root"/docs/*.md; do
  uncompiled=$(check_quotes "$doc")
  if [ -n "$uncompiled" ]; then
    case $uncompiled in
      *FAILED*) printf '%s\n' "$uncompiled" ;;
      *) printf 'C++ that is no quote: %s\n' "$uncompiled" ;;
    esac
    failures=$((failures + 1))
  fi
  check_links "$doc"
  check_tests "$doc"
  check_headers "$doc"
done

# The other way round: a header that README.md leaves out, a piece that nobody quotes.
for header in "$root"/include/penstock/*.h "$root"/include/penstock/host/*.h; do
  checks=$((checks + 1))
  name=${header#"$root/include/"}
  grep -qF "\`$name\`" "$root/README.md" || fail "README.md does not name $name"
done
while IFS=: read -r file name; do
  checks=$((checks + 1))
  grep -qF "<!-- quote: $(basename "$file") $name -->" "$root"/*.md "$root"/docs/*.md ||
    fail "nobody quotes $name of $file"
done < <(grep -o '// \[quote: [^]]*' "$root"/examples/*.cpp | sed 's|// \[quote: ||')

[ "$checks" -gt 20 ] || fail "only $checks checks were made"
[ "$failures" -eq 0 ] || exit 1
echo "documents: $checks checks passed"
