#!/bin/bash
# Fails when a unit includes what does not stand below it, or a folder what it must not know.
set -euo pipefail
cd "$(dirname "$0")/../src"

declare -A floor=(
  [common/owned]=0 [common/error]=1 [common/file_bytes]=2 [common/line_match]=2
  [common/conf]=3 [common/idn]=3 [common/safe_dir]=3 [common/safe_open]=4
  [common/accounts]=5 [common/file_lock]=5 [common/panel_db]=5 [common/names]=5 [common/file_copy]=6
  [common/file_str]=7 [common/get]=7 [process/exec]=6 [process/send_sig]=7 [process/remove_tree]=8
  [qmail/layout]=8 [qmail/domain]=9 [process/service]=10 [filters/antivirus]=10 [filters/spam]=10
  [qmail/mailbox]=10 [qmail/forward]=10 [qmail/nonexist]=10 [qmail/quota]=10
  [driver/rebuild]=11 [driver/run]=12 [driver/main]=13
)
declare -A never=([common]='qmail|filters|process|driver' [process]='qmail|filters|driver'
  [qmail]='filters|driver' [filters]='qmail|driver' [driver]='-')

status=0
while IFS=: read -r file _ line; do
  unit=${file%.*} other=${line#*\"} other=${other%.h\"*}
  [[ $unit != "$other" ]] || continue
  if [[ ! ${floor[$unit]-} || ! ${floor[$other]-} ]]; then
    echo "$file: $other or the unit itself has no floor yet"
    status=1
  elif ((floor[$other] >= floor[$unit])) || [[ ${other%%/*} =~ ^(${never[${unit%%/*}]})$ ]]; then
    echo "$file: $unit must not know $other"
    status=1
  fi
done < <(grep -nE '^ *# *include *"' -- */*.cc */*.h)
exit "$status"
