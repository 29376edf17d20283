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

as_popuser() {
  setpriv --reuid=popuser --regid=popuser --clear-groups bash -c "$1"
}

# Plants something in a place: `popuser` as himself, `root` where the kernel keeps him from it.
plant() {
  local who=$1 place=$2 what=$3
  setup_victims
  printf '# %s: %s %s\n' "$place" "$who" "$what" >>$shown
  what="rm -rf $place; ${what//@/$place}"
  if [[ $who == popuser ]]; then as_popuser "$what"; else eval "$what"; fi
  describe >/run/before
  session mboxfix --without-spam
  sed -i '/^\$ mboxfix\|^call: /d; /^$/d; /^System error/d' $shown
  describe | diff /run/before - | sed 's/^/VICTIM: /' >>$shown || true
  find "$place" -maxdepth 0 -printf 'now: %y %U:%G %m %l\n' >>$shown 2>&1 || true
}

make_healthy() {
  panel
  mkdir -p $victims
  mboxfix --without-spam
  rm -rf /run/healthy
  mkdir /run/healthy
  cp -a --parents /var/qmail /etc/drweb /run/healthy
}

@test "what popuser can plant in his directories" {
  make_healthy
  for place in $box/{.qmail,.qmail.tmp,@mbox.quota,Maildir,Maildir/tmp,@attachments} $box $boxes/d.example/{.qmail-default,@mbox.quota}; do
    for target in file dir dir/none; do
      plant popuser $place "ln -s $victims/$target @"
    done
    plant popuser $place 'mkfifo @; chmod 666 @'
    plant popuser $place 'echo "./Maildir/" >@; chmod 640 @'
    plant root $place "ln $victims/file @"
    plant root $place "ln -P $victims/link @"
    plant root $place 'echo restored >@'
    plant root $place 'mknod @ c 1 7'
    plant root $place 'mkdir @; echo restored >@/file'
    plant root $place "ln -s $victims/dir @"
    plant root $place "mkdir /var/disk/his; chown popuser /var/disk/his; as_popuser 'ln -s /var/disk/his @'"
    rm -rf /var/disk/his
  done
}

@test "an antivirus directory, and lock files, of somebody else's" {
  make_healthy
  for place in /etc/drweb/{users.conf,users.conf.in,users.conf.tmp}; do
    for what in "ln -s $victims/file @" 'mkfifo @' 'echo his >@; chown 7:8 @; chmod 2664 @' 'echo roots >@' 'mkdir @'; do
      plant root $place "chown 7:8 /etc/drweb; $what"
      plant root $place "chown 0:0 /etc/drweb; chmod 1777 /etc/drweb; $what"
    done
  done
  lock=$locks/$(printf %s /var/qmail/control/rcpthosts | md5sum | cut -c-32)
  chown 7:8 $locks
  for what in "ln -s $victims/file @" 'mkfifo @' 'echo kept >@; chown 9:9 @' ':'; do
    plant root "$lock" "$what"
    [[ ! -f $lock ]] || cat "$lock" >>$shown
  done
}

@test "links of root's go on leading where they lead" {
  make_healthy
  for way in "mv $box /var/disk/m; ln -s /var/disk/m $box; rm /var/disk/m/.qmail" "mv $boxes /var/disk/all; ln -s /var/disk/all $boxes" \
    "mv $boxes/d.example /var/disk/d; ln -s /var/disk/d $boxes/d.example; rm -r /var/disk/d/m" \
    "rm -r $box; mkdir /var/disk/m; ln -s /var/disk/m $box" "rm -r $box; mkdir /var/disk/m; chown popuser /var/disk/m; ln -s /var/disk/m $box" \
    "ln -s /var/disk/list /etc/drweb/users.conf.in; echo other >/var/disk/list" "ln -s a $boxes/d.example/b; mv $box $boxes/d.example/a; ln -s b $box" \
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
  mount -t tmpfs none /proc
  session mboxfix --without-spam
  changes
  umount /proc
}

@test "a mailbox and a link change places while runs go on" {
  make_healthy
  setup_victims
  as_popuser "cd ${box%/*}; while :; do mv m real; ln -s $victims/dir m; rm m; mv real m; done" 2>/dev/null 3>&- &
  racers=($!)
  bash -c "cd ${box%/*}; while :; do ln $victims/tool a; mv -f a .qmail-default; cp -p .qmail-own b; mv -f b .qmail-default; done" \
    2>/dev/null 3>&- &
  racers+=($!)
  as_popuser "echo owned >${box%/*}/.qmail-own"
  describe >/run/before
  # Every other run is slow to go on after it has looked at a file.
  slow=(strace -qq -o /dev/null -e trace=newfstatat,fstat -e inject=newfstatat,fstat:delay_exit=2000)
  for ((runs = 0, end = SECONDS + 8; SECONDS < end; ++runs)); do
    raced=(mboxfix --without-spam)
    ((runs % 2)) || raced=("${slow[@]}" "${raced[@]}")
    timeout 20 "${raced[@]}" >/run/planted.out 2>&1 3>&- || [[ $? == 1 ]] || echo 'no orderly end' >>$shown
    find "${box%/*}" -links 1 -perm /6000 2>/dev/null >>$shown || true
  done
  kill -KILL "${racers[@]}"
  describe | diff /run/before - | grep -v 'tool\|^[0-9]' >>$shown || true
  ((runs > 3))
}
