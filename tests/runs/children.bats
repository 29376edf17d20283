load ../helper

@test "a program's end and all that it wrote are told" {
  flood="yes x | tr -d '\\n' | head -c 300000"
  for lines in 'echo a; echo b >&2' 'exit 3' 'echo told; echo why >&2; exec >&- 2>&-; exit 4' "$flood >&2; exit 5" \
    "$flood | tee /dev/stderr; exit 5" 'kill -9 $$' 'exec >&- 2>&-; kill -STOP $$' 'echo $# $0 $1 ${99} ${100-} >>/run/host/calls; exit 7' \
    'ls /proc/self/fd >>/run/host/calls; cat; head -c 4095 /dev/zero | tr "\0" y; exit 8' 'sleep 60 & echo $! >/run/daemon; exit 6' \
    'sleep 60 & echo $! >/run/daemon; echo told; exit 0'; do
    script $bin/tool "$lines"
    session operate util_exec tool
    [[ ! -e /run/daemon ]] || kill "$(</run/daemon)"
    rm -f /run/daemon
  done
  operations 'util_execv tool a' 'util_execv no/tool a' 'util_exec ../bin/tool' 'util_exec none'
  script $bin/tool 'sleep 0.3; echo late; exit 3' # and as if nothing had come for long
  session strace -qq -o /dev/null -e trace=?poll,ppoll -e inject=?poll,ppoll:retval=0:when=1 operate util_exec tool
  for call in pipe2 fcntl clone dup2; do
    session strace -f -qq -o /dev/null -e trace=$call -e inject=$call:error=EMFILE:when=1 operate util_exec tool
  done
  script $bin/tool 'ls /proc/self/fd >>/run/host/calls' # where the kernel cannot close a range
  session strace -f -qq -o /dev/null -e trace=close_range -e inject=close_range:error=ENOSYS operate util_exec tool 9</dev/null
}

@test "a quiet program says nothing" {
  for lines in 'cat; echo a; echo b >&2; exit 1' '[ $# = 99 ] && kill -9 $$' 'readlink /proc/self/fd/[012] >>/run/host/calls' ''; do
    script /run/tool "$lines"
    session operate run_quiet_wait /run/tool
  done
  session operate run_quiet_wait /run/none
}

# Starts a program of this name and argv[0].
start() {
  cp /bin/sleep "/run/$1"
  env --default-signal=HUP bash -c 'exec -a "$1" "$0" 600' "/run/$1" "$2" 3>&- &
  started+=($!)
  until grep -qx "$1" /proc/$!/comm; do sleep 0.01; done
}

# Shows which of the started programs have got the signal that ends them.
ended() {
  local pid
  for pid in "${started[@]}"; do
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || echo "ended by $(($? - 128))" >>$shown
  done
  started=()
}

@test "a program is known by exactly its name" {
  for name in mark-se /no/mark-se '[mark-se]' '(mark-se)' '<mark-se>' mark-sex '[mark-se'; do
    started=()
    start mark-se "$name"
    start mark-send2 mark-send2
    start xmark-se xmark-se
    operations 'is_process_running mark-se' 'kill_by_name mark-se 1'
    ended
  done
  session operate is_process_running mark-se
}

@test "processes are counted and signalled by a field" {
  started=()
  start mark.b1 a
  start xmark.b a
  start mark.c mark.b
  operations 'kill_by_field comm mark.b 0' 'kill_by_field comm mark.b 1'
  ended
  session operate kill_by_field comm=mark.heading mark.heading 0
  ps_says() {
    script /run/ps "printf '$1'"
    mount --bind /run/ps /usr/bin/ps
    session operate kill_by_field args mark 0
    umount /usr/bin/ps
  }
  ps_says 'PID mark\n mark\n 0 mark\n -1 mark\n 99999999 mark mark\n 4294967297 mark\n 2147483648 mark'
  ps_says ''
  ps_says "told'; exit 1; '"
  ps_says 'PID\n1 mark'
}

@test "a tree is removed, and nothing that it links to" {
  mkdir -p /run/work && cd /run/work
  mkdir -p tree/sub/.deep/er tree/busy victim/kept
  ln -s ../victim tree/link
  ln -s ../../victim tree/sub/link
  mkfifo tree/pipe
  touch tree/sub/.deep/file tree/file
  operations 'remove_tree '{tree,no,tree/file}'/none 1' 'remove_tree tree/link 1' 'remove_tree tree/'{file,sub}' 0'
  tree tree victim
  mount --bind tree/busy tree/busy
  session operate remove_tree tree 1
  umount tree/busy
  session operate remove_tree tree/ 1
  tree tree victim || true
  perl -e 'mkdir "tree" and chdir "tree" or die for 1 .. 1001'
  session operate remove_tree tree 1
  perl -e 'mkdir "tree" and chdir "tree" or last for 1 .. 999'
  rm -rf tree
  perl -e 'mkdir "tree" and chdir "tree" or die for 1 .. 1000'
  session operate remove_tree tree 1
  session ls
}

@test "directories are moved aside, and only those are purged" {
  mkdir -p /run/work && cd /run/work
  mkdir -p $boxes/d/e $boxes/f victim/kept /var/www/vhosts/{__deletedAAAAAA/a,a__deleted,__deleteBBBBBB}
  ln -s /run/work/victim /var/www/vhosts/__deletedlink
  ln -s none /var/www/vhosts/dangling
  touch /var/www/vhosts/__deletedfile
  session strace -qq -o /dev/null -e trace=newfstatat -P $boxes/d -e inject=newfstatat:error=EIO:when=3 operate deferred_remove $boxes/d
  session strace -qq -o /dev/null -e trace=getrandom -e inject=getrandom:error=EIO operate deferred_remove $boxes/d
  operations "deferred_remove "{victim,$boxes,$boxes/none,$boxes/d}
  tree $boxes
  session operate purge_deferred_dirs
  tree $boxes /var/www/vhosts victim
  rm -r /var/www/vhosts
  session operate purge_deferred_dirs
}
