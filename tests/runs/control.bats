load ../helper

# mboxfixctl beside the program, on a host where nothing fits the panel: a domain and a mailbox have gone, one has come.
setup_panel() {
  cp "$(dirname "$MBOXFIX")/mboxfixctl" /usr/local/sbin/
  rm -rf /var/backups/mboxfix /var/log/mboxfixctl.log
  panel
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
  find /var/qmail /etc /usr/local /var/backups /var/log/mboxfixctl.log ! -path "$locks/*" -printf '%p %y %U:%G %m %s %T@ %C@ %i\n' 2>/dev/null | sort
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
  ctl check --without-spam
  untouched preview --quiet --without-spam
  remember
  ctl apply --yes --quiet --without-spam
  changes
  untouched preview --summary --quiet --without-spam
  ctl apply --yes --quiet --without-spam
  stat -c '%n %U:%G %a' /var/backups/mboxfix /var/log/mboxfixctl.log >>$shown
  stat -c '%U:%G %a' /var/backups/mboxfix/*.tar >>$shown
  ctl restore --list
  ctl restore --quiet "$(mboxfixctl restore --list | tail -n 1)"
  changes
  ctl apply --yes --quiet
  for ((copy = 0; copy < 12; ++copy)); do
    echo gone.example >>/var/qmail/control/rcpthosts
    mboxfixctl apply --yes --quiet >/dev/null
  done
  find /var/backups/mboxfix -name '*.tar' | wc -l >>$shown
}

@test "what is misused" {
  setup_panel
  for words in '' apply apply' x' 'preview --yes' 'check --list' 'restore --list x' 'restore x' 'apply --yes --with-spam --spam-only'; do
    # shellcheck disable=SC2086
    untouched $words
    sed -i '/^  /d' $shown
  done
  ctl --version
  session setpriv --reuid=1 --regid=1 --clear-groups mboxfixctl check
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
  rm -r $boxes && mkdir $boxes
  for limit in size=8k nr_inodes=9; do
    mount -t tmpfs -o mode=755,$limit small $boxes
    refused
    umount $boxes
  done
  mboxfix --without-spam
  rm -r $box/Maildir
  echo mail >$box/Maildir
  chown popuser: $box/Maildir
  refused
  rm -rf $box /var/disk
  install -d -o popuser -g popuser /var/disk
  ln -s /var/disk $box
  chown -h popuser $box
  refused
  chown -h root $box
  ctl apply --yes --quiet --without-spam
  list /var/disk >>$shown
}

@test "links of root's and mounts lead where they lead" {
  setup_panel
  mkdir -p /var/disk
  mv /var/qmail/control/rcpthosts $box /var/disk
  ln -s /var/disk/rcpthosts /var/qmail/control/rcpthosts
  ln -s /var/disk/m $box
  mkdir $boxes/new.example /var/disk/new.example
  mount --bind /var/disk/new.example $boxes/new.example
  untouched preview --quiet --without-spam
  ctl apply --yes --quiet --without-spam
  ctl preview --summary --quiet --without-spam
  umount $boxes/new.example
  list /var/disk /var/qmail/control >>$shown
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
  ctl apply --yes --quiet --without-spam
  kill $!
  wait $! || true
  cat /var/qmail/control/rcpthosts >>$shown
}

@test "interrupted in check, stage, question and publishing" {
  setup_panel
  remember
  for signal in TERM HUP; do
    begin env --default-signal=INT mboxfixctl apply --yes --quiet --without-spam
    wait_until 'pgrep -x mboxfix'
    kill -$signal $begun
    ended
  done
  changes
  for moment in 'pgrep -x mboxfix' 'grep -q y/N /run/seen'; do
    mkfifo /run/typed
    : >/run/seen
    command script -qfec 'mboxfixctl apply --without-spam --quiet' /run/seen </run/typed >/dev/null 2>&1 3>&- &
    begun=$!
    exec 9>/run/typed
    wait_until "$moment"
    printf '\003' >&9
    exec 9>&-
    : >/run/out
    ended
    rm /run/typed
  done
  changes
  mkfifo /run/go
  script /var/qmail/bin/qmail-newu 'read -r _ </run/go'
  begin mboxfixctl apply --yes --quiet --without-spam
  wait_until 'pgrep -x qmail-newu'
  kill -TERM $begun
  echo >/run/go
  ended
  changes
}

@test "qmail-newu or the restart fails" {
  setup_panel
  for program in qmail-newu qmail; do
    echo 3 >/run/host/exit/$program
    ctl apply --yes --quiet --without-spam
    rm /run/host/exit/$program
    cat /var/qmail/control/rcpthosts >>$shown
  done
  ctl apply --yes --quiet --without-spam
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
  for _ in 1 2 3; do mboxfixctl apply --yes --quiet --without-spam >/dev/null; done
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
    ((status != 2)) || [[ ! -e $boxes && $(</var/qmail/users/assign) == gone.example ]] || echo "$1: touched"
    timeout 5 bash -c 'while pgrep mboxfix; do :; done' >/dev/null || echo "$1: processes stay"
    ! grep mboxfixctl /proc/mounts
    find /var/backups/mboxfix ! -perm /077 -name '*.tar' -newer /run/whole -empty
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
  point=0 stride=$((${STRIDE:-40} * 3 - 2))
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
}
