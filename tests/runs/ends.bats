load ../helper

away() {
  local words
  for words; do
    read -ra words <<<"$words"
    option=${words[1]-} runs "sql 'rename table ${words[0]} to away'"
    sql "rename table away to ${words[0]}"
  done
}

@test "options are taken whole, and everything else gets the usage" {
  touch /var/qmail/control/rcpthosts
  remember
  for words in '' x --With-spam -vv --with-spa '-v x' '-v --daemon' '-v --daemon-mode x' '--spam-only -v' 'spam-onl'; do
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
  done < <(grep "^[A-Z]" /run/whole)
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
  session mboxfix --without-spam daemon-mode
  { readlink /proc/"$waiter"/{cwd,fd/0,fd/1,fd/2} && ls -A /var/qmail/users; } >>$shown
  [[ $(cut -d' ' -f6 /proc/"$waiter"/stat) == "$waiter" ]] || echo 'not a session of its own' >>$shown
  release
  # The one that goes on keeps the lock to its end, and a run for the spam filter alone waits for it, too.
  mboxfix --spam-only >/run/out 2>&1 3>&- &
  timeout 60 sh -c 'until grep -q "qmail restart" /run/host/calls && [ $(grep -c -e "->.*:$1 " /proc/locks) = 2 ]; do sleep 0.02; done' \
    - "$(stat -c %i /etc/vlq/.vlq.shadow)"
  timeout 60 sh -c 'cat /run/done && cat /run/done' >>$shown
  wait $!
  tree
}

@test "started without streams, or with a reader or a file size that ends" {
  panel
  session bash -c 'mboxfix --without-spam <&- >&- 2>&-'
  tree /var/qmail/users
  echo mail >$box/Maildir/new/1
  conf QMAIL_ROOT_D /run/none
  session bash -c 'exec 4> >(true); wait $!; mboxfix -v 2>&4 >&4; echo $?'
  conf QMAIL_ROOT_D /var/qmail
  session bash -c 'exec 4> >(true); wait $!; (ulimit -f 0; mboxfix --without-spam 2>&4 >&4); echo $?'
  tree
  for files in {4..16}; do
    (ulimit -n "$files" && exec mboxfix --without-spam >/run/out 2>&1) || true
    [[ -s $box/Maildir/new/1 ]]
  done
}

@test "the ground that cannot be prepared" {
  panel
  option=-v runs 'conf QMAIL_ROOT_D /run/none' "conf QMAIL_ROOT_D /var/qmail; conf QMAIL_MAILNAMES_D /dev/null/no" \
    'conf QMAIL_MAILNAMES_D /proc/'{no/no,sys,1/task} "conf QMAIL_MAILNAMES_D $boxes/" "conf QMAIL_MAILNAMES_D $boxes; rm -r $boxes; touch $boxes"
  tree
  runs "rm -r $boxes /var/qmail/control" 'sed -i /^qmails:/d /etc/passwd' 'sed -i /^popuser:/d /etc/passwd'
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
  # Every rule of an address gives way to one; what else the engine's template says stays.
  for to in from to any; do printf "allow\t$to\t%s@d.example%s\n" $'regex\t^m' '$' $'exact\tm' '' $'exact\tn' ''; done >/etc/drweb/users.conf.in
  printf '%05000d\n' 0 >>/etc/drweb/users.conf.in
  session mboxfix --without-spam
  tree /var/qmail /etc/drweb/users.conf
}

@test "a password file of its kind" {
  panel
  long=$(printf '%098d' 7)
  sql "set password for admin@localhost = password('$long')"
  option=--spam-only
  runs 'printf %s "$long" >/etc/vlq/.vlq.shadow' 'printf "%s\nmore\n" "$long" >/etc/vlq/.vlq.shadow' \
    'printf "%sx\n" "$long" >/etc/vlq/.vlq.shadow'
  sql "set password for admin@localhost = password('${long}9')"
  runs 'printf "%s9 and the rest\n" "$long" >/etc/vlq/.vlq.shadow'
  sql "set password for admin@localhost = password('')"
  runs 'echo >/etc/vlq/.vlq.shadow'
  option=-v runs ': >/etc/vlq/.vlq.shadow' 'rm /etc/vlq/.vlq.shadow'
  sql "set password for admin@localhost = password('$(</run/former/etc/vlq/.vlq.shadow)')"
}

@test "a table that is away" {
  panel
  away misc domains Limits Parameters domainaliases mail mail_redir mail_aliases Components
  sql 'insert Parameters values (1, "nonexist_mail", "catch"); update DomainServices set parameters_id = 1'
  away clients 'spamfilter -v' 'spamfilter_preferences -v' 'domains --spam-only' 'mail --spam-only'
  sql 'update Parameters set value = "reject" where id = 1'
  away mail_aliases
  cat /etc/drweb/users.conf >>$shown
}

@test "a table that the antivirus list lacks" {
  panel
  for column in mail.virusfilter domainaliases.status mail_aliases.mn_id domainaliases.dom_id; do
    # A column that a query of the list alone has: the earlier rules stay, and the engine isn't told.
    runs "sql 'alter table ${column%.*} rename column ${column#*.} to gone'"
    sql "alter table ${column%.*} rename column gone to ${column#*.}"
    cat /etc/drweb/users.conf >>$shown
  done
}

@test "components there and not, doubled and without a version" {
  panel
  option=--with-spam
  for rows in "('drweb', 'not_installed'), ('vlq-spamassassin', '')" \
    "('drweb', '1'), ('drweb-qmail', 'not_installed'), ('vlq-spamassassin', 'not_installed')" \
    "('drweb', ''), ('drweb-qmail', 'not_installed_'), ('vlq-spamassassin', 'Not_installed')" "('drweb', '1')" \
    "('drweb', null)" "('drweb', 'not_installed'), ('drweb', 'not_installed')" "('drweb', 'not_installed')" \
    "('Drweb', '1'), ('vlq-spamassassin', '1')"; do
    runs 'sql "delete from Components; insert Components (name, version) values $rows"'
  done
}

@test "the finishing step" {
  panel
  newu=/var/qmail/bin/qmail-newu qmail=/etc/init.d/qmail exits=/run/host/exit
  runs "echo 1 >$exits/qmail-newu" "echo 6 >$exits/qmail-newu" "echo 255 >$exits/qmail-newu" "echo 3 >$exits/qmail" \
    "rm $exits/*; echo 4 >$exits/qmail" "rm $exits/*; script $newu 'kill -TERM \$\$'" "rm $newu" "chmod 644 $qmail" \
    'echo NO_RESTART_DAEMON >>/etc/vlq/vlq.conf' 'echo NO_RESTART_DAEMON no >>/etc/vlq/vlq.conf'
}

@test "what its children inherit" {
  panel
  for program in $bin/virsetup $bin/spamsetup /var/qmail/bin/qmail-newu /etc/init.d/qmail; do
    script $program '{ env | sort; sed -n "s/^\(Sig[BI].*:\).*\(.......\)$/\1 \2/p" /proc/self/status
      ls -l /proc/self/fd | sed -n "s/.* \([0-9] ->.[^0-9]*\).*/\1/p"; } >>/run/host/calls'
  done
  session env -i --default-signal --ignore-signal=CHLD,PIPE,XFSZ PATH=/run:/bin:/usr/local/sbin LANG=C.UTF-8 TERM=dumb IFS=x \
    mboxfix --with-spam
}

@test "a name that no query can hold" {
  panel
  sql "update domains set name = \"it's.example\""
  session mboxfix --without-spam
  tree
}

@test "an operation without a name" {
  panel
  mboxfix --without-spam
  remember
  for operation in add_domain_alias add_mailbox remove_mailbox add_postbox add_forward add_autoresponder add_mail_alias; do
    session operate $operation '' d.example z
    session operate $operation m '' z
  done
  session operate add_mail_alias m d.example ''
  for operation in add_mail_domain set_reject add_bounce; do session operate $operation '' 1; done
  changes
}

@test "a virsetup or a spamsetup that fails, and a mail name that is empty" {
  session operate spam_apply_settings m@d.example
  panel
  sql 'insert mail (mail_name, dom_id) values ("", 7); insert spamfilter_preferences (spamfilter_id, preference, value)
    select 1, "blacklist_from", seq from seq_1_to_60'
  session mboxfix --spam-only
  option=--with-spam runs : "sql 'delete from mail where mail_name = \"\"'; echo 3 >/run/host/exit/spamsetup
    script $bin/virsetup 'echo told; echo why >&2; exit 3'" "rm $bin/* /usr/local/vlq/admin/sbin/spamsetup"
  session operate spam_apply_settings m@d.example
  touch /usr/local/vlq/admin/sbin/spamsetup
  session operate spam_apply_settings ''
}

@test "logins without their domain, and a connection for each lookup" {
  panel
  sql "insert misc values ('allow_short_pop3_names', 'enabled')"
  sql "show global status like 'Connections'" >/run/connections
  session mboxfix --without-spam
  echo "connections: $(($(sql "show global status like 'Connections'" | cut -f2) - $(cut -f2 /run/connections) - 1))" >>$shown
  tree /var/qmail/users
  for value in disable disabled Disabled disabled-; do
    runs "sql 'update misc set val = \"$value\"'"
    cut -d: -f1 /var/qmail/users/poppasswd >>$shown
  done
}
