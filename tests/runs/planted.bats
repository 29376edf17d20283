load ../helper

# What others may put where root writes: nothing of the victims' changes, and what a run makes of each is shown.
setup_victims() {
  rm -rf /var/qmail /etc/drweb $victims
  cp -a /run/healthy/* /
  mkdir -p $victims/dir/new
  printf 'secret\n' | tee $victims/file $victims/dir/file >$victims/dir/.qmail
  chmod 600 $victims/file $victims/dir/.qmail
  ln -s $victims/file $victims/link
  install -m 4755 /bin/true $victims/tool
}
victims=/var/disk/victims

describe() {
  find $victims -printf '%p %y %U:%G %m %s %T@\n' | sort
}

popuser=(setpriv --reuid=popuser --regid=popuser --clear-groups bash -c)
as_popuser() {
  "${popuser[@]}" "$1"
}

# Plants something in some places: `popuser` as himself, `root` where the kernel keeps him from it. A run that one of
# them ends (the one in the domain that it came to last) is begun again without that one.
plant() {
  local who=$1 what=$2 place all='' left
  shift 2
  setup_victims
  for place; do all+="rm -rf $place; ${what//@/$place};"; done
  printf '# %s %s\n' "$who" "$what" >>$shown
  if [[ $who == popuser ]]; then as_popuser "$all"; else eval "$all"; fi
  describe >/run/before
  for place; do
    session mboxfix --without-spam
    sed -i '/^\$ mboxfix\|^call: /d; /^$/d; /^System error/d' $shown
    ((status == 1 && $# > 1)) || break
    rm -rf $boxes/"$(tail -n 1 /var/qmail/control/rcpthosts)"
  done
  describe | diff /run/before - | sed 's/^/VICTIM: /' >>$shown || true
  find "$@" -maxdepth 0 -printf '%p: %y %U:%G %m %l\n' 2>&1 | sed '/No such file/d' >>$shown
}

# The panel with so many further domains of the same kind, rebuilt.
make_healthy() {
  panel
  sql "insert domains (id, name, cl_id, limits_id) select 10 + seq, concat('d', seq, '.example'), 1, 1 from seq_1_to_9 limit ${1-0};
    insert DomainServices (dom_id, type, status) select id, 'mail', 0 from domains where id > 10;
    insert mail (id, mail_name, dom_id, account_id, postbox, mbox_quota, redirect, redir_addr, mail_group, autoresponder)
      select id, 'm', id, 1, 'true', '2048', 'true', 'x@far.example', 'true', 'true' from domains where id > 10;
    insert mail_redir (mn_id, address) select id, 'y@far.example' from domains where id > 10"
  mkdir -p $victims
  mboxfix --without-spam
  rm -rf /run/healthy
  mkdir /run/healthy
  cp -a --parents /var/qmail /etc/drweb /run/healthy
}

@test "what popuser can plant in his directories" {
  local places=() place
  for place in m/{.qmail.tmp,@mbox.quota,Maildir/tmp,@attachments,.qmail,Maildir} m .qmail-default @mbox.quota; do
    places+=("$boxes/d$((${#places[@]} + 1)).example/$place")
  done
  make_healthy 9
  for what in 'ln -s /var/disk/victims/'{file,dir,dir/none}' @' 'mkfifo @; chmod 666 @' 'echo "./Maildir/" >@; chmod 640 @'; do
    plant popuser "$what" "${places[@]}"
  done
  for what in 'ln /var/disk/victims/file @' 'ln -P /var/disk/victims/link @' 'echo restored >@' 'mknod @ c 1 7' 'mkdir @; echo restored >@/file' \
    'ln -s /var/disk/victims/dir @' "mkdir -p /var/disk/his; chown popuser /var/disk/his; as_popuser 'ln -s /var/disk/his @'"; do
    plant root "$what" "${places[@]}"
  done
  mkdir /var/disk/ro
  chown popuser /var/disk/ro
  mount --bind /var/disk/ro /var/disk/ro
  mount -o remount,bind,ro /var/disk/ro
  plant popuser 'ln -s /var/disk/ro @' "${places[@]}"
  umount /var/disk/ro
  mount -t tmpfs -o nr_inodes=1,uid=popuser full /var/disk/ro
  plant popuser 'ln -s /var/disk/ro @' "${places[@]}"
  umount /var/disk/ro
}

@test "a file that somebody else holds, or puts back as often as it is taken away" {
  make_healthy
  for operation in add_mailbox add_autoresponder; do
    setup_victims
    "${popuser[@]}" "exec perl -e '\$SIG{IO} = \"IGNORE\"; open F, \">>$box/.qmail\"; fcntl F, 1024, 1 or die; sleep 600'" 3>&- &
    until grep -q LEASE /proc/locks; do sleep 0.01; done
    session operate $operation m d.example
    kill -KILL $!
    wait $! || true
    session strace -qq -o /dev/null -e trace=unlinkat -e inject=unlinkat:retval=0 \
      sh -c "rm $box/.qmail; mkfifo $box/.qmail; exec operate $operation m d.example"
    tree $box
  done
  # Whenever qmail-send is looked for, another directory takes the domain's place.
  setup_victims
  script /run/ps "cd $boxes && cp -a d.example d && rm -r d.example && mv d d.example"
  mount --bind /run/ps /usr/bin/ps
  remember
  session mboxfix --without-spam
  changes
  umount /usr/bin/ps
}

@test "an antivirus directory, and lock files, of somebody else's" {
  make_healthy
  for place in /etc/drweb/{users.conf,users.conf.in,users.conf.tmp}; do
    for what in "ln -s $victims/file @" 'mkfifo @' 'echo his >@; chown 7:8 @; chmod 2664 @' 'echo roots >@' 'mkdir @'; do
      plant root "chown 7:8 /etc/drweb; $what" $place
      plant root "chown 0:0 /etc/drweb; chmod 1777 /etc/drweb; $what" $place
    done
  done
  plant root 'truncate -s 1073741825 @' /etc/drweb/users.conf.in
  plant root 'chgrp staff /var/qmail/users; chmod 2775 /var/qmail/users; echo his >@; chown 7:8 @; chmod 666 @' \
    /var/qmail/users/poppasswd
  plant root 'chown 7:8 /var/qmail/control; echo roots >@; chgrp 8 @; chmod 7765 @' /var/qmail/control/rcpthosts
  plant root 'chown 7:8 /var/qmail/control; echo roots >@; chgrp 9 @; chmod 7765 @' /var/qmail/control/rcpthosts
  lock=$locks/$(printf %s /var/qmail/control/rcpthosts | md5sum | cut -c-32)
  chown 7:8 $locks
  for what in "ln -s $victims/file @" 'mkfifo @' 'echo kept >@; chown 9:9 @' ':'; do
    plant root "$what" "$lock"
    [[ ! -f $lock ]] || cat "$lock" >>$shown
  done
}

@test "links of root's go on leading where they lead" {
  make_healthy
  chain='for n in {1..40}; do ln -s $((n - 1)) /var/disk/$n; done; mv /var/qmail/control/rcpthosts /var/disk/0; ln -s /var/disk'
  for way in "mv $box /var/disk/m; ln -s /var/disk/m $box; rm /var/disk/m/.qmail" "mv $boxes /var/disk/all; ln -s /var/disk/all $boxes" \
    "mv $boxes/d.example /var/disk/d; ln -s /var/disk/d $boxes/d.example; rm -r /var/disk/d/m" \
    "rm -r $box; mkdir /var/disk/m; ln -s /var/disk/m $box" "rm -r $box; mkdir /var/disk/m; chown popuser /var/disk/m; ln -s /var/disk/m $box" \
    "ln -s /var/disk/list /etc/drweb/users.conf.in; echo other >/var/disk/list" "ln -s a $boxes/d.example/b; mv $box $boxes/d.example/a; ln -s b $box" \
    "mv $boxes/d.example /var/disk/d; ln -s /var/disk/d $boxes/d.example; chown -h popuser $boxes/d.example" \
    "mv /var/qmail/control /var/disk; ln -s /var/disk/control /var/qmail; chown -h 7 /var/qmail/control" \
    "ln -sf $victims/file /var/qmail/control/rcpthosts; chown -h 7 /var/qmail/control/rcpthosts" "$chain/"{39,40}" /var/qmail/control/rcpthosts" \
    "chmod 1777 /var/disk; mkdir /var/disk/s; echo other >/var/disk/s/list; chown 7 /var/disk/s/list; ln -s /var/disk/s/list /etc/drweb/users.conf.in" \
    "mv $locks /var/disk; ln -s /var/disk/files $locks" "mv /var/disk/files $locks.real; ln -sfn $locks.real $locks; chmod 1777 ${locks%/*}"; do
    [[ $way == *files* ]] || rm -rf /var/disk
    mkdir -p /var/disk
    setup_victims
    eval "$way"
    echo "# $way" >>$shown
    remember /var/qmail /var/disk /etc/drweb
    session mboxfix --without-spam
    changes /var/qmail /var/disk /etc/drweb
  done
}

@test "a host without /proc, and a tree that root restored" {
  make_healthy
  setup_victims
  chown -R root:root $boxes
  remember
  session mboxfix --without-spam
  changes
  grep -q __asan_init /usr/local/sbin/mboxfix || mount -t tmpfs none /proc # which the sanitizer itself needs
  session mboxfix --without-spam
  changes
  umount /proc || true
  sed -i '/^\(< \)*Error, do this: mount/d' $shown # as ps has it
}

@test "a mailbox and a link change places while runs go on" {
  make_healthy
  setup_victims
  "${popuser[@]}" "cd ${box%/*}; while :; do mv m real; ln -s $victims/dir m; rm m; mv real m; done" 2>/dev/null 3>&- &
  racers=($!)
  bash -c "cd ${box%/*}; while :; do ln $victims/tool a; mv -f a .qmail-default; cp -p .qmail-own b; mv -f b .qmail-default; done" \
    2>/dev/null 3>&- &
  racers+=($!)
  as_popuser "echo owned >${box%/*}/.qmail-own"
  describe >/run/before
  # Every other run is slow to go on after it has looked at a file.
  slow=(strace -qq -o /dev/null -e trace=newfstatat,fstat -e inject=newfstatat,fstat:delay_exit=2000)
  for ((runs = 0, end = SECONDS + 5; SECONDS < end; ++runs)); do
    raced=(mboxfix --without-spam)
    ((runs % 2)) || raced=("${slow[@]}" "${raced[@]}")
    timeout 20 "${raced[@]}" >/run/planted.out 2>&1 3>&- || [[ $? == 1 ]] || echo 'no orderly end' >>$shown
    find "${box%/*}" -links 1 -perm /6000 2>/dev/null >>$shown || true
  done
  kill -KILL "${racers[@]}"
  describe | diff /run/before - | grep -v 'tool\|^[0-9]' >>$shown || true
  ((runs > 3))
}
