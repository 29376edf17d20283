#!/bin/bash
# Fails when a unit includes what does not stand below it on the contributors' page, or a folder what it must not know.
set -euo pipefail
cd "$(dirname "$0")/.."

# From the top down; a line is a floor, and its rooms do not know each other.
floors=$(sed -n '/^    driver/,/^$/s/^    //p' CONTRIBUTING.md)
declare -A never=([common]='qmail|filters|process|driver' [process]='qmail|filters|driver'
  [qmail]='filters|driver' [filters]='qmail|driver' [driver]='-')

status=0
fail() {
  echo "$1"
  status=1
}

declare -A floor=()
height=$(wc -l <<<"$floors")
while read -r line; do
  for room in $(eval "echo $line"); do
    floor[$room]=$height
  done
  ((height--)) || true
done <<<"$floors"

while IFS=: read -r file _ line; do
  unit=${file#src/} unit=${unit%.*} other=${line#*\"} other=${other%.h\"*}
  [[ $unit != "$other" ]] || continue
  if [[ ! ${floor[$unit]-} || ! ${floor[$other]-} ]]; then
    fail "$file: $other or the unit itself has no floor yet"
  elif ((floor[$other] >= floor[$unit])) || [[ ${other%%/*} =~ ^(${never[${unit%%/*}]})$ ]]; then
    fail "$file: $unit must not know $other"
  fi
done < <(grep -nE '^ *# *include *"' -- src/*/*.cc src/*/*.h)
exit "$status"
