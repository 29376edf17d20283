load ../helper

# mboxfixctl beside the program, on a host where nothing fits the panel: a domain and a mailbox have gone, one has come.
# File systems of their own, since overlays cannot be stacked without end, and the host is one already.
setup_panel() {
  for dir in "${own[@]}"; do mount -t tmpfs -o mode=755 own "$dir"; done
  cp -a /run/former/* /
  cp "${MBOXFIX%/*}"/mboxfix{,ctl} /usr/local/sbin/
  rm -rf /var/backups/mboxfix /var/log/mboxfixctl.log
  panel
  sql 'revoke all privileges, grant option from admin@localhost; grant select on vlq.* to admin@localhost'
  mboxfix --without-spam
  sql 'update mail set redirect = "true", redir_addr = "new@far.example" where id = 1;
    insert domains (id, name, cl_id) values (77, "new.example", 1); insert DomainServices (dom_id, type) values (77, "mail")'
  echo gone.example >>/var/qmail/control/rcpthosts
  rm -r $box/Maildir/new
}

# Shows what a command said, the calls made, its status and what is left of it; not what differs from time to time.
show_end() {
  sed -Ei 's/[0-9]{8}-[0-9]{6}\.[0-9]{3}/TIME/g; s/in [0-9.]+ s/in N s/g; s/process [0-9]+/process N/; /would report: System error/d
    s/[0-9]{2,} go/MANY go/' /run/out
  { cat /run/out && sed 's/^/call: /' /run/host/calls; } >>$shown
  (($1 == 0)) || echo "[$1]" >>$shown
  ! pgrep -l mboxfix >>$shown || true
  ! grep mboxfixctl /proc/mounts >>$shown || true
}

show_log() {
  sed -E 's/^.{20}//; s/[0-9]{8}-[0-9]{6}\.[0-9]{3}/TIME/; s/in [0-9.]+ s/in N s/g' /var/log/mboxfixctl.log >>$shown
}

ctl() {
  local status=0
  : >/run/host/calls
  printf '$ mboxfixctl %s\n' "$*" >>$shown
  timeout 60 mboxfixctl "$@" </dev/null >/run/out 2>&1 3>&- 4>&- || status=$?
  sed -i 's/20[0-9]*-[0-9.]*\.tar/TIME.tar/' $shown
  show_end $status
}

# Every path with its number and times.
describe() {
  find /var/qmail /etc /usr/local /var/backups /var/log/mboxfixctl.log -printf '%p %y %U:%G %m %s %T@ %C@ %i\n' 2>/dev/null | sort
}

# A command that must leave everything as it was.
untouched() {
  describe >/run/untouched
  ctl "$@"
  describe | diff /run/untouched - >>$shown || true
}

refused() {
  untouched apply --yes --quiet --without-spam
  untouched preview --summary --quiet --without-spam
}

# Turns the order of a file's lines round.
reverse() {
  tac "$1" >/run/reversed
  cat /run/reversed >"$1"
}

# Runs a command in the background; `ended` shows what became of it.
begin() {
  : >/run/host/calls
  "$@" </dev/null >/run/out 2>&1 3>&- 4>&- &
  begun=$!
}

ended() {
  local status=0
  wait $begun || status=$?
  show_end $status
}

wait_until() {
  timeout 20 bash -c "until $1; do sleep 0.01; done" >/dev/null
}

@test "from check to restore" {
  setup_panel
  sql 'insert mail (id, mail_name, dom_id, account_id, postbox) values (9, "Maildir", 7, 1, "true");
    update mail set mbox_quota = null where id = 1; update Limits set value = null'
  ctl check --without-spam
  printf '\302\233\033.example\n' >>/var/qmail/control/rcpthosts
  echo odd:HASH >>/var/qmail/users/poppasswd
  untouched preview --quiet --without-spam
  sed -i '$d' /var/qmail/control/rcpthosts /var/qmail/users/poppasswd
  remember
  ctl apply --yes --quiet --without-spam
  changes
  reverse /var/qmail/users/assign
  chmod 640 /var/qmail/control/rejectnonexist
  untouched preview --summary --quiet --without-spam
  reverse /var/qmail/users/assign
  chmod 644 /var/qmail/control/rejectnonexist
  ctl apply --yes --quiet --without-spam
  stat -c '%n %U:%G %a' /var/backups/mboxfix /var/log/mboxfixctl.log >>$shown
  stat -c '%U:%G %a' /var/backups/mboxfix/*.tar >>$shown
  show_log
  ctl restore --list
  head -c 3000 /var/backups/mboxfix/2*.tar >/var/backups/mboxfix/20000101-000000.000.tar
  untouched restore 20000101-000000.000.tar
  rm /var/backups/mboxfix/20000101-000000.000.tar /var/qmail/control/rcpthosts $box/.qmail
  ctl restore --quiet "$(mboxfixctl restore --list | tail -n 1)"
  changes
}

@test "the ten latest copies are kept" {
  setup_panel
  ln -s /run/elsewhere /var/log/mboxfixctl.log
  ctl apply --yes --quiet
  touch /var/backups/mboxfix/his.tar
  for ((copy = 0; copy < 12; ++copy)); do
    echo gone.example >>/var/qmail/control/rcpthosts
    mboxfixctl apply --yes --quiet >/dev/null
  done
  find /var/backups/mboxfix -name '*.tar' | wc -l >>$shown
  # As if the clock had been set back since: what is made now stays.
  touch /var/backups/mboxfix/29990101-00000{0..9}.000.tar
  echo gone.example >>/var/qmail/control/rcpthosts
  mboxfixctl apply --yes --quiet >/dev/null
  find /var/backups/mboxfix -name '2[0-8]*.tar' | wc -l >>$shown
}

@test "what is misused" {
  setup_panel
  for words in '' apply apply' x' 'preview --yes' 'check --list' 'restore --list x' restore 'restore x' 'apply --yes --with-spam --spam-only'; do
    # shellcheck disable=SC2086
    untouched $words
    sed -i '/^  /d' $shown
  done
  ctl --version
  for words in --version check 'apply --yes --quiet'; do
    # shellcheck disable=SC2086
    mboxfixctl $words >/dev/full 2>>$shown || echo "[$?]" >>$shown
  done
  session setpriv --reuid=1 --regid=1 --clear-groups mboxfixctl check
}

# What a check finds after each of some steps; each is undone by the next.
finds() {
  local step
  for step; do
    eval "$step"
    printf '# %s\n' "${step//$'\n'/ }" >>$shown
    untouched check --with-spam
    sed -i '/^ok\|^\$ mboxfixctl/d' $shown
  done
}

@test "a check tells what is wrong" {
  setup_panel
  ctl check
  finds "sql 'alter table mail rename column redir_addr to gone'" \
    "sql 'alter table mail rename column gone to redir_addr; update Components set version = 1;
      alter table mail_redir rename column address to gone'" \
    "sql 'alter table mail_redir rename column gone to address; alter table mail rename column virusfilter to gone'" \
    "sql 'alter table mail rename column gone to virusfilter; rename table spamfilter to gone'" \
    "sql 'rename table gone to spamfilter; insert Components (name, version) values (\"drweb\", 1)'" \
    "sql 'delete from Components where name = \"drweb\" limit 1'; chmod a-x $bin/*" \
    "chmod a+x $bin/*; rm /etc/init.d/qmail" \
    'echo NO_RESTART_DAEMON no >>/etc/vlq/vlq.conf; mv /var/qmail/control/rcpthosts /run/kept; mkdir /var/qmail/control/rcpthosts' \
    'rmdir /var/qmail/control/rcpthosts; ln -s /run/none /var/qmail/control/rcpthosts' \
    'rm /var/qmail/control/rcpthosts; mv /run/kept /var/qmail/control/rcpthosts; sed -i /^qmails/d /etc/passwd' \
    'cp -a /run/former/etc/passwd /etc; mv /etc/drweb/users.conf /run/conf; mkfifo /etc/drweb/users.conf' \
    'rm /etc/drweb/users.conf; mv /run/conf /etc/drweb/users.conf; mv /etc/vlq/.vlq.shadow /run/kept' 'mv /run/kept /etc/vlq/.vlq.shadow'
  hold $locks/"$(printf /var/qmail/users/assign | md5sum | cut -c-32)"
  finds :
  release
}

# The order of the rows is the server's.
@test "a check tells which rows are passed over, and which would end a run" {
  setup_panel
  sql 'drop database vlq; create database vlq character set utf8mb4; use vlq; source demo/schema.sql;
    insert Components (name, version) values ("drweb", "1"), ("vlq-spamassassin", "1"); source tests/runs/odd.sql;'
  ctl check
  finds "sql 'insert domains (id, name, cl_id) values (90, \"\", 1), (91, \"quo\\\"te.test\", 1), (92, repeat(\"x\", 64), 1); update mail set mail_name = \"!\", redirect = \"true\", redir_addr = \"nobody\" where id = 11;
    update mail set redir_addr = \"nobody\" where id = 1; update mail_aliases set alias = \"!\" where alias = \"ok\";
    insert DomainServices (dom_id, type) values (90, \"mail\"), (91, \"mail\"), (92, \"mail\")'"
  sort -o $shown $shown
}

@test "a run that would fail touches nothing" {
  setup_panel
  cp -p /etc/vlq/.vlq.shadow /run/password
  echo wrong >/etc/vlq/.vlq.shadow
  refused
  cp -p /run/password /etc/vlq/.vlq.shadow
  mv /run/mysqld/mysqld.sock /run/mysqld/away
  refused
  mv /run/mysqld/away /run/mysqld/mysqld.sock
  sed -i s/^popuser/nobody2/ /etc/passwd
  refused
  sed -i s/^nobody2/popuser/ /etc/passwd
  sql 'update mail set mail_name = "!" where id = 1'
  refused
  sql 'update mail set mail_name = "m" where id = 1; rename table mail_redir to away'
  refused
  sql 'rename table away to mail_redir'
  sed -i '/^LOGROTATE/d; s/^WEB_STAT .*/WEB_STAT/; s/^QMAIL_ROOT_D/  &/' /etc/vlq/vlq.conf
  refused
}

@test "what cannot be written, taken away or followed touches nothing" {
  setup_panel
  for dir in control users; do
    mount --bind -o ro /var/qmail/$dir /var/qmail/$dir
    refused
    umount /var/qmail/$dir
  done
  sql 'delete from domains where id = 77'
  for dir in $locks $box/Maildir; do
    mount --bind $dir $dir
    chown root: $box/Maildir
    mount -o remount,bind,ro $dir
    refused
    umount $dir
  done
  cp -a $boxes /var/disk
  mount -t tmpfs -o mode=755,size=64k small $boxes
  chgrp qmail $boxes
  cp -a /var/disk/. $boxes
  (cat /dev/zero >$boxes/full) 2>/dev/null || true
  refused
  umount $boxes
  sql 'insert domains (id, name, cl_id) values (77, "new.example", 1); insert DomainServices (dom_id, type) values (77, "mail")'
  rm -r $boxes /var/disk && mkdir $boxes
  for limit in size=8k nr_inodes=9; do
    mount -t tmpfs -o mode=755,$limit small $boxes
    refused
    umount $boxes
  done
  mkdir -m 750 /var/backups/mboxfix
  ctl apply --yes --quiet --without-spam
  rmdir /var/backups/mboxfix
  mboxfix --without-spam
  echo 1 >$box/@mbox.quota
  mkdir $box/@mbox.quota.tmp
  refused
  rm -r $box/@mbox.quota.tmp $box/Maildir
  echo mail >$box/Maildir
  chown popuser: $box/Maildir
  refused
  rm -rf $box /run/disk
  install -d -o popuser -g popuser /run/disk
  ln -s /run/disk $box
  chown -h popuser $box
  refused
  chown -h root $box
  ctl apply --yes --quiet --without-spam
  list /run/disk >>$shown
}

@test "links of root's and mounts lead where they lead" {
  setup_panel
  mkdir -p /run/disk
  mv /var/qmail/control/rcpthosts $box /run/disk
  ln -s /run/disk/rcpthosts /var/qmail/control/rcpthosts
  ln -s /run/disk/m $box
  mv $boxes /run/disk
  ln -s /run/disk/mailnames $boxes
  chmod 700 /run/disk/mailnames
  mkdir $boxes/new.example /run/disk/new.example
  mount --bind /run/disk/new.example $boxes/new.example
  untouched preview --quiet --without-spam
  ctl apply --yes --quiet --without-spam
  ctl preview --summary --quiet --without-spam
  umount $boxes/new.example
  list /run/disk /var/qmail/control >>$shown
  # A root that is no mount itself.
  for dir in /*/; do
    mkdir -p /run/above/root$dir
    mount --rbind $dir /run/above/root$dir
  done
  session chroot /run/above/root mboxfixctl preview --summary --quiet --without-spam
  umount -R /run/above/root/*
}

@test "other runs and other editors" {
  setup_panel
  hold /etc/vlq/.vlq.shadow
  untouched apply --yes --quiet
  untouched restore
  release
  hold $locks/"$(printf /var/qmail/control/rcpthosts | md5sum | cut -c-32)"
  begin mboxfixctl apply --yes --quiet --without-spam
  wait_for_waiter >/dev/null
  echo meanwhile.example >>/var/qmail/control/rcpthosts
  release
  ended
  bash -c 'while :; do echo x >>/var/qmail/users/poppasswd; done' 3>&- &
  wait_until 'grep -qx x /var/qmail/users/poppasswd'
  ctl apply --yes --quiet --without-spam
  kill $!
  wait $! || true
  cat /var/qmail/control/rcpthosts >>$shown
  echo gone.example >>/var/qmail/control/rcpthosts
  begin strace -qq -o /dev/null -e trace=flock -e inject=flock:error=EIO:when=2 mboxfixctl apply --yes --quiet --without-spam
  ended
  hold $locks/"$(printf /var/qmail/users/poppasswd | md5sum | cut -c-32)"
  begin mboxfixctl restore
  wait_until 'grep -q waiting /run/out'
  release
  ended
}

@test "a mailbox changes during the stage, and goes during the copy" {
  setup_panel
  mv /usr/local/sbin/mboxfix /usr/local/sbin/rebuild
  script /usr/local/sbin/mboxfix 'rebuild "$@"; [ -e /run/late ] || { echo >/run/at; read -r _ </run/go; }'
  mkfifo /run/at /run/go
  begin mboxfixctl apply --yes --quiet --without-spam
  read -r _ </run/at
  sql 'insert mail_redir (mn_id, address) values (1, "late@far.example")'
  echo '&late@far.example' >>$box/.qmail
  touch /run/late
  echo >/run/go
  ended
  mv /usr/local/sbin/rebuild /usr/local/sbin/mboxfix
  rm /run/at /run/go /run/late
  cat $box/.qmail >>$shown
  cp /bin/tar /run/tar
  rm -r $box/Maildir
  for deed in "rm -r $box" "echo late >>$box/.qmail"; do
    printf '#!/bin/sh\n[ -e /run/late ] || %s; touch /run/late; exec /run/tar "$@"\n' "$deed" >/run/disturbing
    chmod 755 /run/disturbing
    mount --bind /run/disturbing /bin/tar
    rm -f /run/late
    echo early >>$box/.qmail
    ctl apply --yes --quiet --without-spam
    umount /bin/tar
  done
  tar -xOf "/var/backups/mboxfix/$(mboxfixctl restore --list | head -n 1)" ".$box/.qmail" >>$shown
  list $box >>$shown
}

@test "interrupted in check, stage, question and publishing" {
  setup_panel
  remember
  mkfifo /run/at /run/go /run/called
  mv /usr/local/sbin/mboxfix /usr/local/sbin/rebuild
  printf '#!/bin/sh\n[ ! -e /run/at ] || { echo >/run/at; read -r _ </run/go; }; exec rebuild "$@"\n' >/usr/local/sbin/mboxfix
  chmod 755 /usr/local/sbin/mboxfix
  for way in "kill -TERM" "kill -HUP" "pkill -KILL -P"; do
    begin env --default-signal=INT,HUP mboxfixctl apply --yes --quiet --without-spam
    wait_until 'read -r _ </run/at'
    $way $begun
    ended
  done
  changes
  for moment in 'read -r _ </run/at' 'grep -q y/N /run/seen'; do
    mkfifo /run/typed
    : >/run/seen
    env --default-signal=INT script -qfec 'exec mboxfixctl apply --without-spam --quiet' /run/seen </run/typed >/dev/null 2>&1 3>&- &
    begun=$!
    exec 9>/run/typed
    wait_until "$moment"
    printf '\003' >&9
    wait_until 'grep -q "^Script done" /run/seen'
    sed '/^Script/d; s/\r$//' /run/seen >/run/out
    ended
    exec 9>&-
    rm -f /run/typed /run/at
  done
  changes
  hold $locks/"$(printf $boxes/new.example/.qmail-default | md5sum | cut -c-32)"
  begin mboxfixctl apply --yes --quiet --without-spam
  wait_for_waiter >/dev/null
  kill -TERM $begun
  ended
  release
  changes
  script /var/qmail/bin/qmail-newu 'echo >/run/called; read -r _ </run/go'
  begin mboxfixctl apply --yes --quiet --without-spam
  wait_until 'read -r _ </run/called'
  kill -TERM $begun
  echo >/run/go
  ended
  changes
}

# On a terminal, where something is typed.
typed() {
  local status=0
  : >/run/host/calls
  printf "$1" | command script -qec "$2" /dev/null >/run/out 2>&1 3>&- 4>&- || status=$?
  echo "# $1, $2" >>$shown
  perl -pi -e 's/\r\e\[K[^\r\n]*(?=\r\e\[K)//g; s/\r(\e\[K)?//g' /run/out
  show_end $status
}

@test "on a terminal" {
  setup_panel
  sql 'insert accounts values (9, "plain", "secret"); insert mail (mail_name, dom_id, account_id, postbox) values ("off", 7, 9, "true");
    update domains set status = 2 where id = 7'
  chmod 640 /var/qmail/control/virtualdomains
  chown 7:8 $box
  echo 'long:$1$x:y' >>/var/qmail/users/poppasswd
  reverse /var/qmail/users/poppasswd
  rm /var/qmail/control/rejectnonexist
  typed '' 'PAGER="sed s/^/pager:/" mboxfixctl preview --without-spam'
  typed 'n\n' 'mboxfixctl apply --without-spam'
  typed 'y\n' 'PAGER=false mboxfixctl apply --without-spam'
  typed '' 'PAGER=cat mboxfixctl preview --without-spam'
}

@test "a program fails" {
  setup_panel
  timeout 60 perl -MSocket -e 'socket S, AF_UNIX, SOCK_DGRAM, 0; bind S, sockaddr_un("/dev/log");
    recv(S, $_, 999, 0), print s/^(<\d+>).*\]:/$1/r, "\n" for 1 .. 6' >/run/syslog 3>&- &
  wait_until '[ -S /dev/log ]'
  for programs in qmail-newu qmail virsetup spamsetup 'virsetup qmail'; do
    for program in $programs; do echo 3 >/run/host/exit/$program; done
    ctl apply --yes --quiet
    rm /run/host/exit/*
    cat /var/qmail/control/rcpthosts >>$shown
  done
  ctl preview --quiet --spam-only
  ctl apply --yes --quiet --spam-only
  wait $!
  show_log
  cat /run/syslog >>$shown
  rm /dev/log
  echo gone.example >>/var/qmail/control/rcpthosts
  script /etc/init.d/qmail 'echo meanwhile.example >>/var/qmail/control/rcpthosts'
  sql 'insert domains (id, name, cl_id) values (78, "come.example", 1); insert DomainServices (dom_id, type) values (78, "mail")'
  ctl apply --yes --quiet --without-spam
  cat /var/qmail/control/rcpthosts >>$shown
}

# shellcheck disable=SC2016 # perl's own
@test "a live reader misses nothing" {
  setup_panel
  mboxfixctl apply --yes --quiet --without-spam >/dev/null
  perl -e '
    my @lists = ("/var/qmail/control/rcpthosts", "/var/qmail/users/poppasswd");
    sub names { my %n; for my $f (@lists) { open F, "<", $f; /^([^:\n]+)/ and $n{$1} = 1 while <F>; } return \%n }
    my ($all, $missed, $reads) = (names(), 0, 0);
    open R, ">", "/run/ready"; close R;
    until (-e "/run/stop") { my $now = names(); ++$reads; ++$missed if grep !$now->{$_}, keys %$all }
    print "missed: $missed", $reads > 100 ? "\n" : " of $reads reads only\n"' >/run/read 3>&- &
  wait_until '[ -e /run/ready ]'
  for _ in 1 2 3; do
    echo gone.example | tee -a /var/qmail/users/poppasswd >>/var/qmail/control/rcpthosts
    mboxfixctl apply --yes --quiet --without-spam >/dev/null
  done
  touch /run/stop
  wait $!
  rm /run/stop /run/ready
  cat /run/read >>$shown
}

# Old lists hold a line of their own, and no directory is there: everything is published.
prepare_injury() {
  rm -rf $boxes
  for list in control/{rcpthosts,virtualdomains,rejectnonexist} users/{assign,poppasswd}; do
    echo gone.example >/var/qmail/$list
  done
}

# Each list is the old one or the new one; of rcpthosts lines may be missing that only one of them has.
judge_lists() {
  for list in control/{rcpthosts,virtualdomains,rejectnonexist} users/{assign,poppasswd}; do
    [[ $(</var/qmail/$list) == gone.example ]] || cmp -s /var/qmail/$list /run/whole/$list ||
      [[ $list == */rcpthosts && ! -s /var/qmail/$list ]] || echo "$1: $list is neither old nor new"
  done
}

injure() {
  local status=0
  prepare_injury
  timeout 60 strace "${@:2}" -qq -o /dev/null mboxfixctl apply --yes --quiet --without-spam >/run/out 2>&1 3>&- || status=$?
  {
    judge_lists "$1"
    ((status <= 2 || status == 137)) || echo "$1: status $status"
    ((status != 1)) || [[ $(</var/qmail/control/rcpthosts) != gone.example ]] || echo "$1: status 1, untouched"
    ((status != 2)) || [[ ! -e $boxes && $(</var/qmail/users/assign) == gone.example ]] || echo "$1: touched"
    timeout 5 bash -c 'while pgrep mboxfix; do :; done' >/dev/null || echo "$1: processes stay"
    ! grep mboxfixctl /proc/mounts
    find /var/backups/mboxfix -name '*.tar' \( -empty -o -perm /077 \)
    mboxfixctl apply --yes --quiet --without-spam >/dev/null 2>&1 || echo "$1: no healing"
    list_unsalted | diff /run/before - || echo "$1: another tree"
  } >>$shown
}

@test "failed and killed at every so-many-th call" {
  ! grep -q __asan_init "$MBOXFIX" || skip "the staged program's leak check cannot be traced, and its environment is empty"
  setup_panel
  sql 'update accounts set type = "crypt"'
  prepare_injury
  mboxfixctl apply --yes --quiet --without-spam >/dev/null
  cp -a /var/qmail /run/whole
  remember
  prepare_injury
  strace -f -qq -e signal=none -e trace=mount,move_mount,mount_setattr,clone,fsopen,fsconfig,fsmount -o /run/inner mboxfixctl apply --yes --quiet --without-spam >/dev/null
  prepare_injury
  strace -qq -e signal=none -o /run/calls mboxfixctl apply --yes --quiet --without-spam >/dev/null
  prepare_injury
  # An older kernel closes each mount by itself.
  strace -f -qq -o /dev/null -e trace=mount_setattr -e inject=mount_setattr:error=ENOSYS mboxfixctl apply --yes --quiet --without-spam >/dev/null
  list_unsalted | diff /run/before - >>$shown || true
  injure 'no process for the copy' -e trace=clone -e inject=clone:error=EAGAIN:when=2
  point=0 stride=$(((${STRIDE:-80} * 3 - 1) / 2))
  while read -r call when; do
    ((point++ % stride == 0)) || continue
    injure "killed at $call $when" -e trace="$call" -e inject="$call:signal=KILL:when=$when"
    case $call in
      openat | write | mkdirat | renameat | fchown | fchmod | flock | unlinkat | statfs | read | getdents64 | pipe2 | clone*)
        injure "$call $when fails" -e trace="$call" -e inject="$call:error=EIO:when=$when" ;;
    esac
  done < <(grep -o '^[a-z0-9_]*' /run/calls | awk '$1 !~ /^(execve|exit)/ { print $1, ++n[$1] }')
  while read -r call when; do
    ((point++ % (stride / 8 + 1) == 0)) || continue
    injure "$call $when fails inside" -f -e trace="$call" -e inject="$call:error=EPERM:when=$when"
  done < <(grep -o '[a-z_]*(' /run/inner | awk '{ sub(/\(/, ""); print $1, ++n[$1] }')
  ((point > 300))
}
