load ../helper

away() {
  sql "rename table $1 to away"
  session mboxfix "${2:---without-spam}"
  sql "rename table away to $1"
}

component() {
  sql "delete from Components; insert Components (name, version) values $1"
  session mboxfix --with-spam
}

@test "options are taken whole, and everything else gets the usage" {
  touch /var/qmail/control/rcpthosts
  remember
  for words in '' x --With-spam -vv --with-spa '-v x' '-v --daemon' '-v --daemon-mode x' '--spam-only -v' 'spam-onl'; do
    # shellcheck disable=SC2086
    session mboxfix $words
  done
  session mboxfix '-v '
  rm /etc/vlq/vlq.conf
  session mboxfix -v daemon-mode-
  changes
}

@test "each option has its phases" {
  panel
  for option in --with-spam with-spam -v --without-spam without-spam --spam-only spam-only; do
    session mboxfix $option
  done
  sql 'update Components set version = "not_installed"'
  rm -r /var/qmail
  session mboxfix --spam-only
  session ls -d /var/qmail
}

@test "nobody but root" {
  session setpriv --reuid=1 --regid=1 --clear-groups mboxfix x
  session setpriv --regid=1 --keep-groups --bounding-set=-setgid mboxfix x
  session setpriv --ruid=1 --euid=0 --rgid=1 --egid=0 --clear-groups mboxfix --without-spam
  tree
}

@test "each of the 36 keys is needed" {
  cp /etc/vlq/vlq.conf /run/whole
  while read -r key _; do
    sed "s/^$key .*/$key/" /run/whole >/etc/vlq/vlq.conf
    session mboxfix -v
  done < <(grep ^[A-Z] /run/whole)
  : >/etc/vlq/vlq.conf
  session mboxfix -v
  rm /etc/vlq/vlq.conf
  session mboxfix -v
}

@test "in the background it waits for another run, and holds nothing of its caller's" {
  panel
  mkfifo /run/done
  echo 'echo "$1" >/run/done' >>/etc/init.d/qmail
  hold /etc/vlq/.vlq.shadow
  cd /run
  session mboxfix --without-spam --daemon-mode
  waiter=$(wait_for_waiter)
  { readlink /proc/"$waiter"/{cwd,fd/0,fd/1,fd/2} && ls -A /var/qmail/users; } >>$shown
  [[ $(cut -d' ' -f6 /proc/"$waiter"/stat) == "$waiter" ]] || echo 'not a session of its own' >>$shown
  release
  timeout 60 cat /run/done >>$shown
  tree
}

@test "started without streams, or with a reader or a file size that ends" {
  panel
  session bash -c 'mboxfix --without-spam <&- >&- 2>&-'
  tree /var/qmail/users
  conf QMAIL_ROOT_D /run/none
  session bash -c 'exec 4> >(true); wait $!; mboxfix -v 2>&4 >&4; echo $?'
  conf QMAIL_ROOT_D /var/qmail
  session bash -c 'exec 4> >(true); wait $!; (ulimit -f 0; mboxfix --without-spam 2>&4 >&4); echo $?'
  tree
}

@test "the ground that cannot be prepared" {
  panel
  conf QMAIL_ROOT_D /run/none
  session mboxfix -v
  conf QMAIL_ROOT_D /var/qmail
  for path in /dev/null/no /proc/no/no /proc/sys /proc/1/task; do
    conf QMAIL_MAILNAMES_D $path
    session mboxfix -v
  done
  conf QMAIL_MAILNAMES_D $boxes
  touch $boxes
  session mboxfix -v
  tree
  rm -r $boxes /var/qmail/control
  session mboxfix --without-spam
  sed -i '/^qmails:/d' /etc/passwd
  session mboxfix --without-spam
  sed -i '/^popuser:/d' /etc/passwd
  session mboxfix --without-spam
  tree /var/qmail/users $boxes
}

@test "the bits and links of files that are there stay, and new ones get theirs" {
  panel
  cd /var/qmail
  echo gone >users/assign.linked
  ln -s assign.linked users/assign
  printf 'gone.test\nd.example\ne.example\n' | tee control/rcpthosts users/poppasswd >control/rejectnonexist
  mkdir -p $box/Maildir/new
  echo mail | tee $box/Maildir/new/1 $box/.qmail >$boxes/d.example/.qmail-default
  chmod 640 control/* users/*
  chmod 2750 $boxes $boxes/d.example $box $box/Maildir
  session mboxfix --without-spam
  tree
}

@test "a password file of its kind" {
  panel
  long=$(printf '%098d' 7)
  sql "set password for admin@localhost = password('$long')"
  printf %s "$long" >/etc/vlq/.vlq.shadow
  session mboxfix --spam-only
  printf '%s\nmore\n' "$long" >/etc/vlq/.vlq.shadow
  session mboxfix --spam-only
  printf '%sx\n' "$long" >/etc/vlq/.vlq.shadow
  session mboxfix --spam-only
  sql "set password for admin@localhost = password('${long}9')"
  printf '%s9 and the rest\n' "$long" >/etc/vlq/.vlq.shadow
  session mboxfix --spam-only
  sql "set password for admin@localhost = password('')"
  echo >/etc/vlq/.vlq.shadow
  session mboxfix --spam-only
  : >/etc/vlq/.vlq.shadow
  session mboxfix -v
  rm /etc/vlq/.vlq.shadow
  session mboxfix -v
  sql "set password for admin@localhost = password('$(</run/former/etc/vlq/.vlq.shadow)')"
}

@test "a table that is away" {
  panel
  for table in misc domains Limits Parameters domainaliases mail mail_redir mail_aliases Components; do
    away $table
  done
  sql 'insert Parameters values (1, "nonexist_mail", "catch"); update DomainServices set parameters_id = 1'
  away clients
  away spamfilter -v
  away spamfilter_preferences -v
  away domains --spam-only
  away mail --spam-only
  sql 'update Parameters set value = "reject" where id = 1; rename table mail_aliases to away'
  session mboxfix --without-spam
  sql 'rename table away to mail_aliases'
  cat /etc/drweb/users.conf >>$shown
}

@test "a table that the antivirus list lacks" {
  panel
  for column in mail.virusfilter domainaliases.status mail_aliases.mn_id domainaliases.dom_id; do
    # A column that a query of the list alone has: the earlier rules stay, and the engine isn't told.
    sql "create view v as select 1; drop view v; alter table ${column%.*} rename column ${column#*.} to gone"
    session mboxfix --without-spam
    sql "alter table ${column%.*} rename column gone to ${column#*.}"
    cat /etc/drweb/users.conf >>$shown
  done
}

@test "components there and not, doubled and without a version" {
  panel
  component "('drweb', 'not_installed'), ('vlq-spamassassin', '')"
  component "('drweb', '1'), ('drweb-qmail', 'not_installed'), ('vlq-spamassassin', 'not_installed')"
  component "('drweb', ''), ('drweb-qmail', 'not_installed_'), ('vlq-spamassassin', 'Not_installed')"
  component "('drweb', '1')"
  component "('drweb', null)"
  component "('drweb', 'not_installed'), ('drweb', 'not_installed')"
  component "('drweb', 'not_installed')"
  component "('Drweb', '1'), ('vlq-spamassassin', '1')"
}

@test "the finishing step" {
  panel
  newu=/var/qmail/bin/qmail-newu qmail=/etc/init.d/qmail
  for status in 1 6 255; do
    echo $status >/run/host/exit/qmail-newu
    session mboxfix --without-spam
  done
  echo 3 >/run/host/exit/qmail
  session mboxfix --without-spam
  rm /run/host/exit/*
  echo 4 >/run/host/exit/qmail
  session mboxfix --without-spam
  rm /run/host/exit/*
  script $newu 'kill -TERM $$'
  session mboxfix --without-spam
  rm $newu
  session mboxfix --without-spam
  chmod 644 $qmail
  session mboxfix --without-spam
  echo NO_RESTART_DAEMON >>/etc/vlq/vlq.conf
  session mboxfix --without-spam
  echo NO_RESTART_DAEMON no >>/etc/vlq/vlq.conf
  session mboxfix --without-spam
}

@test "a virsetup or a spamsetup that fails, and a mail name that is empty" {
  panel
  sql 'insert mail (mail_name, dom_id) values ("", 7)'
  session mboxfix --with-spam
  session mboxfix --spam-only
  sql 'delete from mail where mail_name = ""'
  script $bin/virsetup 'echo told; echo why >&2; exit 3'
  echo 3 >/run/host/exit/spamsetup
  session mboxfix --with-spam
  rm $bin/* /usr/local/vlq/admin/sbin/spamsetup
  session mboxfix --with-spam
}

@test "logins without their domain, and a connection for each lookup" {
  panel
  sql "insert misc values ('allow_short_pop3_names', 'enabled')"
  sql "show global status like 'Connections'" >/run/connections
  session mboxfix --without-spam
  echo "connections: $(($(sql "show global status like 'Connections'" | cut -f2) - $(cut -f2 /run/connections) - 1))" >>$shown
  tree /var/qmail/users
  for value in disable disabled Disabled disabled-; do
    sql "update misc set val = '$value'"
    session mboxfix --without-spam
    cut -d: -f1 /var/qmail/users/poppasswd >>$shown
  done
}
