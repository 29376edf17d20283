#!/bin/bash
# Holds the manual pages against the programs: their options, files and exit statuses, and the page's own form.
#
#   manual.sh PROGRAM
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
readonly program=$1 page=doc/mboxfix.8
status=0

fail() {
  echo "$page: $1" >&2
  status=1
}

# The options that a list of words or a page has, one a line.
long_options() {
  grep -o -e '--[a-z][a-z-]*' | sort -u
}

for file in "$page" doc/mboxfixctl.8; do
  # A page that is not installed yet can't be found by the other one.
  warnings=$(mandoc -T lint "$file" | grep -v 'referenced manual not found') || true
  [[ -z $warnings ]] || fail "mandoc warns of $file: $warnings"
  warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' man --warnings -E UTF-8 -l -Tutf8 "$file" 2>&1 >/dev/null)
  [[ -z $warnings ]] || fail "man warns of $file: $warnings"
done

plain=$(mandoc -T ascii "$page" | col -b)
diff <("$program" | long_options) <(sed '/^FILES/,$d' <<<"$plain" | long_options) >&2 || fail 'its options differ'
[[ $plain == *' -v '* ]] || fail '-v is not told'

# Every file below the product's directories that the sources name, by the string that they name it with.
for file in $(grep -ohE '"/(control|users|users\.conf)[a-z./-]*"|@mbox\.quota|\.qmail-default|/etc/vlq/[a-z.]*' src/*/*.cc |
  tr -d '"' | sort -u); do
  grep -qF -e "$file" "$page" || fail "$file is not told"
done
diff <("$(dirname "$program")/mboxfixctl" --help | long_options) <(mandoc -T ascii doc/mboxfixctl.8 | col -b | long_options) >&2 ||
  fail "mboxfixctl's options differ"
for code in 0 1 127 134 255; do
  grep -qx "\.It $code" "$page" || fail "exit status $code is not told"
done
exit "$status"
