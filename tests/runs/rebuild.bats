load ../helper

# Shows the system calls of a run that other programs notice: locks, replaced files, programs, signals.
trace() {
  local file
  session strace -f -qq -y -s 400 -e signal=none -o /run/trace -e trace=flock,renameat,execve,kill,chdir --seccomp-bpf "$@"
  find /var/qmail /etc/drweb -printf '%p\n' | { cat && printf '%s\n' .qmail /etc/drweb//users.conf; } |
    while read -r file; do
      echo "s,</usr/local/vlq/var/lock/files/$(printf %s "$file" | md5sum | cut -c-32)>,<lock of $file>,"
    done >/run/names
  sed -E -f /run/names -e 's/^[0-9]+ +//; s/ += [-?0-9].*//; s/kill\([0-9]+/kill(PID/; s/\b[0-9]+</</g; s,\, 0x[0-9a-f]+ .*\*/,,; s/renameat\(.*[/"](.*)"\)/renameat \1/' \
    -e 's/"-c", "--", /"-c", /' \
    -e '/"\/(usr\/)?bin\/(ps|grep|awk|tail|kill)"|^<\.\.\./d' /run/trace >>$shown
}

# Puts the passwords in the place of their hashes, if these have the salt of this run's second.
name_hashes() {
  local second salt
  for ((second = $1; second <= $(date +%s); ++second)); do
    salt=$(operate random_salt "$second" | cut -c-8)
    perl -i -pe 'BEGIN { $s = shift; %h = map { crypt($_, "\$1\$$s") => $_ } "", split /\n/, $ENV{WORDS} }
      s/:!?\K(\$1\$\Q$s\E[^:]*)/exists $h{$1} ? "<$h{$1}>" : $1/e' "$salt" $shown
  done
}

# As they come from a panel with many rows, whose order is the server's.
sorted() {
  local file
  for file in /var/qmail/{control,users}/* /etc/drweb/users.conf; do
    sort -o "$file" "$file"
  done
}

sample_calls() {
  { grep -v '^call: ' $shown && sed -n 's/^call: //p' $shown | sort; } >/run/calls
  cp /run/calls $shown
}

@test "one of everything, twice, with its locks and signals" {
  panel
  session mboxfix --without-spam
  tree
  remember
  script /run/qmail-se 'trap : HUP; echo >/run/ready; while :; do read -r _ <>/run/never; done'
  mkfifo /run/ready /run/never
  /run/qmail-se 3>&- &
  read -r _ </run/ready
  trace mboxfix --with-spam
  kill -KILL $!
  changes
  tree /etc/drweb
}

@test "the sample panel" {
  cat >/etc/drweb/users.conf.in <<<'of the template'
  sql 'delete from Components; source demo/panel.sql;'
  started=$(date +%s)
  session mboxfix --with-spam
  sorted
  tree /var/qmail /etc/drweb
  sample_calls
  WORDS=$(sql "select password from accounts where type != 'crypt' and password != ''") name_hashes "$started"
  remember
  session mboxfix without-spam
  sorted
  changes
  rm -r /var/qmail
  session mboxfix --spam-only
  sample_calls
  for value in "enabled', 'false'" "enabled', 'true'), ('spamfilter_max_children', 'x'" "max_children', '0'), ('spamfilter_use_mailuser_prefs', 'true'"; do
    sql "delete from misc; insert misc values ('spamfilter_$value)"
    session operate spam_apply_settings '*@*'
  done
}

@test "the panel that no panel should be" {
  sql 'source tests/runs/odd.sql;'
  started=$(date +%s)
  session mboxfix --without-spam
  sort -o $shown $shown
  sorted
  tree /var/qmail /etc/drweb
  WORDS=plain name_hashes "$started"
}
