# The words of a session in a private host: $MBOXFIX and $OPERATE are the program and what does one operation of it.
# Each case begins in the host as it was made, with an empty panel. What its sessions show is held against the file
# expected/FILE/CASE beside it when the case ends; with UPDATE=1 it is written there instead.
export LC_ALL=C SHELL=/bin/sh ASAN_OPTIONS=detect_leaks=0
readonly boxes=/var/qmail/mailnames box=/var/qmail/mailnames/d.example/m locks=/usr/local/vlq/var/lock/files
readonly own=(/etc/drweb /usr/local/vlq /var/qmail) bin=/usr/local/vlq/admin/bin shown=/run/shown top=$BATS_TEST_DIRNAME/../..

setup_file() {
  umask 022
  cp "$MBOXFIX" /usr/local/sbin/mboxfix
  cp "$OPERATE" /usr/local/sbin/operate
  cd /
  [[ -d /run/former ]] || mkdir /run/former
  cp -a --parents /etc/vlq /etc/init.d /etc/drweb /etc/passwd /usr/local/vlq /var/qmail /var/www/vhosts /run/former
}

setup() {
  umask 022
  cd /
  ! mountpoint -q /var/qmail || umount "${own[@]}"
  rm -rf /etc/vlq /etc/init.d "${own[@]}" /var/www/vhosts /var/disk /run/{disk,meanwhile} /run/host/exit/* /dev/hdv1
  cp -a /run/former/* /
  sql 'drop database vlq; create database vlq character set utf8mb4; use vlq;
    source demo/schema.sql;
    insert Components (name, version) values ("drweb", "not_installed"), ("vlq-spamassassin", "not_installed");'
  : >$shown
}

teardown() {
  local file=$BATS_TEST_DIRNAME/expected/$(basename "$BATS_TEST_FILENAME" .bats)/${BATS_TEST_DESCRIPTION//[^a-zA-Z0-9]/-}
  sed -i "s,$boxes,~,g; s,/var/qmail,^,g; s/__deleted[^ ]XXXXX/not drawn/; s/__deleted[A-Za-z0-9]\{6\}\>/__deletedXXXXXX/" $shown
  # In two steps: up to version 5.36 perl repeats 65,535 times at most.
  perl -pi -e 's/((.)\2{99}(?:\2{100})*\2*)/"(" . length($1) . " $2)"/ge' $shown
  if [[ ${UPDATE-} ]]; then
    mkdir -p "${file%/*}"
    cp $shown "$file"
  fi
  diff -u "$file" $shown
}

sql() {
  (cd "$top" && mariadb --no-defaults --default-character-set=utf8mb4 -N vlq <<<"$1")
}

# Shows a command, what it said on standard error, what standard output has instead, the calls made, and its status.
# The errno that the database's client library leaves behind is a matter of timing, and left out.
session() {
  status=0
  : >/run/host/calls
  printf '$ %.200s\n' "${*//$'\n'/ }" >>$shown
  timeout 60 "$@" </dev/null >/run/out 2>/run/err 3>&- 4>&- || status=$?
  perl -0pi -e "s/^(.*(?:Table '|Unknown column|Components|passed over|[Pp]ackage|atabase|DB error|admin email|not found in DB).*\n)\n?System error .*\n/\$1/mg;
    s/^(.*\n)\n?System error (11|95): .*\n/\$1/mg; s/^(operate|mboxfix): src.*Assertion.*/an assertion fails/mg" /run/out /run/err
  { cat /run/err && diff /run/err /run/out | grep '^[<>]'; } >>$shown || true
  sed 's/^/call: /' /run/host/calls >>$shown
  ((status == 0)) || echo "[$status]" >>$shown
}

# After each of some steps, a run.
runs() {
  local step
  for step; do
    eval "$step"
    session mboxfix "${option:---without-spam}"
  done
}

# Operations, each with its arguments.
operations() {
  local words
  for words; do
    session operate $words
  done
}

# The entries below some paths, and each file's lines: shown, or what has changed since `remember`.
list() {
  find "$@" ! -path '*/bin*' -printf '%p %y %U:%G %m %l\n' | sort |
    perl -ne 's/ $//; print; open FILE, "<", $1 and print map("  $_", <FILE>) if /^(.*?) f /'
}

tree() {
  list "${@:-/var/qmail}" >>$shown
}

# Two runs differ in the salt of their hashes.
list_unsalted() {
  list "${@:-/var/qmail}" | sed -E 's/\$1\$[^:]*/HASH/'
}

remember() {
  list_unsalted "$@" >/run/before
}

changes() {
  list_unsalted "$@" | { diff -a /run/before - || true; } | { grep '^[<>]' || true; } >>$shown
}

# Holds the lock of a file until `release`.
hold() {
  mkfifo /run/held /run/free
  flock "$1" sh -c 'echo >/run/held; read -r _ </run/free' 3>&- &
  holder=$!
  read -r _ </run/held
}

release() {
  echo >/run/free
  wait $holder
  rm /run/held /run/free
}

# Waits until a process waits for a lock, and gives its id.
wait_for_waiter() {
  timeout 60 sh -c 'until grep -q -e "->" /proc/locks; do sleep 0.02; done'
  awk '$2 == "->" { print $6 }' /proc/locks
}

# The host's own files: conf KEY VALUE sets a key, script PATH LINES makes a program that notes its calls.
conf() {
  sed -i "s,^$1 .*,$1 $2," /etc/vlq/vlq.conf
}

script() {
  printf '#!/bin/sh\necho "${0##*/} $*" >>/run/host/calls\n%s\n' "${2-}" >"$1"
  chmod 755 "$1"
}

panel() {
  sql "source tests/runs/one.sql;"
}
