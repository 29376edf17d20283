#!/bin/bash
# Fails when a unit includes what does not stand below it, or a folder what it must not know.
set -euo pipefail
cd "$(dirname "$0")/../src"

declare -A floor=(
  [common/error]=0 [common/conf]=1 [common/idn]=1 [common/safe_open]=1 [common/line_match]=0 [common/file_bytes]=0 [common/accounts]=2
  [common/panel_db]=2 [common/file_lock]=2 [process/exec]=2
  [common/get]=3 [common/file_str]=3 [process/send_sig]=3
  [qmail/layout]=4 [qmail/domain]=5 [process/service]=6 [filters/antivirus]=6 [filters/spam]=6
  [qmail/mailbox]=6 [qmail/forward]=6 [qmail/nonexist]=6 [qmail/quota]=6
  [driver/rebuild]=7 [driver/run]=8 [driver/main]=9
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
