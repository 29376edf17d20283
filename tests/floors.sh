#!/bin/bash
# Fails when a unit includes what does not stand below it, or a folder what it must not know, and when the contributors'
# page shows another list than this one.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."

# From the top down; a line is a floor, and its rooms do not know each other.
readonly floors='driver/main control/main
driver/run control/{session,restore}
driver/rebuild control/outcome
control/{check,publish,refusals}
control/{copies,obstacles,put,run_lock,show}
control/{changes,rows}
control/{stage,apart}
control/inside
control/places
qmail/{mailbox,forward,nonexist,quota} filters/{antivirus,spam} process/service
qmail/domain
qmail/layout process/remove_tree
common/{file_str,get} process/send_sig
common/file_copy process/exec control/{findings,lines,say,signals}
common/{accounts,file_lock,names,panel_db}
common/safe_open
common/{conf,idn,line_match,file_bytes,safe_dir}
common/{error,startup,queries}
common/owned'
declare -A never=([common]='qmail|filters|process|driver|control' [process]='qmail|filters|driver|control'
  [qmail]='filters|driver|control' [filters]='qmail|driver|control' [driver]='control' [control]='driver')

# Of control/, which changes nothing but what it publishes, these alone know what writes; the last for a path.
readonly writers='common/(file_copy|file_str|safe_open)|process/(remove_tree|send_sig|service)|qmail/(domain|forward|mailbox|nonexist|quota)|filters/.*'
declare -A writes=([control/put]='common/(file_copy|safe_open)' [control/publish]='process/service'
  [control/places]='filters/antivirus')

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
  elif [[ $unit == control/* && $other =~ ^($writers)$ && ! $other =~ ^(${writes[$unit]-})$ ]]; then
    fail "$file: $unit must not write by $other"
  fi
done < <(grep -nE '^ *# *include *"' -- src/*/*.cc src/*/*.h)

diff <(echo "$floors") <(sed -n 's/^    \([a-z]*\/.*\)/\1/p' CONTRIBUTING.md | head -n "$(wc -l <<<"$floors")") >&2 ||
  fail 'CONTRIBUTING.md shows other floors'
exit "$status"
