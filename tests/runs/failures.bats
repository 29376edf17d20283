load ../helper

# Each call by which a command changes something below some paths fails, one after the other, by what it names; but not
# the close of a directory.
# Shown: what was told, and how the host then differs from what the command makes of it when nothing fails.
readonly changing=openat,write,ftruncate,mkdirat,renameat,unlinkat,fchown,fchmod,fchownat,fchmodat,chown,chmod,flock,close,chdir,fchdir,copy_file_range,rmdir,rename
failures() {
  local call place
  anew
  strace -qq -y -o /run/clean -e trace=$changing "$@" >/run/out 2>&1 || true
  remember /var/qmail /etc/drweb
  perl -ne '($c, $d, $n) = /^(\w+)\((?:[^<"]*<([^>]*)>)?[^"]*(?:"([^"]*)")?/ or next;
    $place = "$d/" =~ m,^/(run|$), && $n =~ m,^/, ? $n : $d;
    next if $place !~ m,^($ENV{within}), || $c eq "close" && -d $d;
    print "$c ", $n && $c ne "write" ? $n : $d, "\n" if !$seen{"$c $n $d"}++' /run/clean >/run/points
  echo "# $*" >>$shown
  while read -r call place; do
    anew
    echo "# $call $place" >>$shown
    session strace -qq -o /dev/null -P "$place" -e trace="$call" -e inject="$call:error=EIO" "$@"
    sed -i '/^\$ strace/d' $shown
    changes /var/qmail /etc/drweb
  done </run/points
}
export within="/var/qmail|/etc/drweb|$locks"

anew() {
  rm -rf /var/qmail /etc/drweb $locks/*
  cp -a /run/made/* /
}

make() {
  panel
  mboxfix --without-spam
  rm -rf /run/made
  mkdir /run/made
  cp -a --parents /var/qmail /etc/drweb /run/made
}

@test "of an operation on a domain" {
  make
  failures operate add_mail_domain d.example 0
  failures operate add_domain_alias d.example e.example
  failures operate set_reject e.example 0
  failures operate set_reject d.example 1
  failures operate add_bounce d.example '| false'
}

@test "of an operation on a mailbox" {
  make
  failures operate add_mailbox n d.example
  failures operate remove_mailbox m d.example
  failures operate add_postbox m d.example secret
  failures operate add_forward m d.example x@far.example
  failures operate add_autoresponder m d.example
  failures operate add_mail_alias m d.example z
  failures operate write_mbox_quota d.example m 5
  failures operate remove_mbox_quota d.example m
}

@test "of what goes and what the filters read" {
  make
  mkdir -p /run/made/var/qmail/{mailnames/__deleted000000,users/gone/dir}
  touch /run/made/var/qmail/users/gone/{file,dir/file}
  failures operate remove_tree /var/qmail/users/gone 1
  failures operate remove_tree /var/qmail/users/gone/file 0
  failures operate purge_deferred_dirs
  failures operate deferred_remove $boxes/d.example
  failures operate copy_file_locked /etc/drweb/users.conf /etc/drweb/other
  sql 'update Components set version = "1"; update mail set virusfilter = "incoming"'
  within=/etc/drweb failures mboxfix -v
}
