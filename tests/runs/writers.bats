load ../helper

# Does an operation in a host that a run has made, where something was put in its way; shows what it changed there.
try() {
  rm -rf /var/qmail
  cp -a /run/made /var/qmail
  cd /var/qmail
  eval "$1"
  remember
  echo "# $1" >>$shown
  session ${injured-} operate "${@:2}"
  changes
  cp /run/former/etc/passwd /etc/passwd
}

# The same operation after each of some things was put in its way.
tries() {
  local way
  for way in "${@:2}"; do try "$way" $1; done
}

# A domain with its mail, and another one whose lines look alike.
make() {
  panel
  sql "insert domains (id, name, cl_id) values (8, 'x.d.example', 1);
    insert DomainServices (id, dom_id, type, status) values (2, 8, 'mail', 0);
    insert mail (id, mail_name, dom_id, account_id, postbox) values (2, 'm', 8, 1, 'true')"
  mboxfix --without-spam
  echo mail >$box/Maildir/new/1
  chmod 644 /var/qmail/users/*
  rm -rf /run/made
  cp -a /var/qmail /run/made
  # What looks for qmail-send is noted.
  script /run/ps
  mountpoint -q /usr/bin/ps || mount --bind /run/ps /usr/bin/ps
}

@test "a domain that cannot be registered is taken out again" {
  make
  tries "add_mail_domain d.example 0" 'rm -r mailnames' 'rm control/rcpthosts; mkdir control/rcpthosts' \
    'rm control/virtualdomains; ln -s /run/no/file control/virtualdomains' \
    'ln -s /run/no/file users/assign.tmp; rm users/assign' \
    'rm users/poppasswd; rm -r mailnames/d.example; touch mailnames/d.example'
  tries "add_mail_domain d.example 1" :
  tries "add_mail_domain no.example 1" :
  try : add_mail_domain '' 0
  try : add_mail_domain "$(printf %064d 1).example" 0
  touch /dev/hdv1
  tries "add_mail_domain d.example 0" 'rm control/rcpthosts; mkdir control/rcpthosts'
}

@test "a domain alias that cannot be registered is taken out again" {
  make
  tries "add_domain_alias d.example e.example" 'rm control/rcpthosts; ln -s /run/no/file control/rcpthosts' \
    'rm control/virtualdomains; ln -s /run/no/file control/virtualdomains' \
    'rm control/virtualdomains; mkdir control/virtualdomains.tmp control/virtualdomains'
  try : add_domain_alias d.example ''
}

@test "a mailbox that cannot be made is taken out again" {
  make
  tries "add_mailbox m d.example" 'rm users/assign' 'rm users/assign users/poppasswd' 'rm -r mailnames/d.example' \
    "rm -r $box; touch $box" "rm $box/.qmail; mkdir $box/.qmail" "rm -r $box/Maildir; touch $box/Maildir" \
    "rm -r $box/@attachments; touch $box/@attachments"
  for name in .m é '' a/b; do try : add_mailbox "$name" d.example; done
  tries "remove_mailbox m d.example" :
  injured='strace -qq -o /dev/null -P Maildir -e trace=openat -e inject=openat:error=ENFILE' tries "add_mailbox m d.example" :
  injured='strace -qq -o /dev/null -P m -e trace=openat -e inject=openat:error=EMFILE:when=4' \
    tries "add_mailbox m d.example" "mv $box /run/his; ln -s /run/his $box; chown -h popuser $box"
  try : add_mailbox m ''
  try : add_mailbox n "$(printf %064d 1).example"
  tries "add_mailbox m d.example" "sed -i /^popuser:/d /etc/passwd"
  tries "remove_mailbox m d.example" "sed -i /^popuser:/d /etc/passwd"
}

@test "a mailbox that cannot be enabled, and deliveries that cannot be added" {
  make
  tries "add_postbox m d.example new" : "chmod 644 $box/.qmail; chgrp 0 $box/.qmail"
  try : add_postbox m d.example ''
  tries "add_postbox m d.example new" "rm -r $box" "rm $box/.qmail; ln -s /run/no/file $box/.qmail" \
    "rm users/poppasswd; ln -s /run/no/file users/poppasswd"
  tries "add_postbox .m d.example new" :
  tries "add_forward m d.example a@ü.example" "chmod 644 $box/.qmail; chgrp 0 $box/.qmail"
  tries "add_forward m d.example a@far.example" "rm -r $box"
  for address in nobody @ "a@$(printf %064d 1)" 'a@@b' é@é; do try : add_forward m d.example "$address"; done
  try : add_forward '' d.example a@far.example
  tries "add_autoresponder m d.example" "chmod 644 $box/.qmail; chgrp 0 $box/.qmail; sed -i /auto/d $box/.qmail" \
    "rm -r $box"
  try : add_autoresponder m ''
  tries "add_mail_alias m d.example new" :
  tries "add_mail_alias m d.example z" 'rm users/assign'
  tries "add_mail_alias m d.example é" :
  tries "add_mail_alias .m d.example z" :
  tries "add_mail_alias m d.example x" 'rm /etc/vlq/.vlq.shadow'
}

@test "policies that cannot be set" {
  make
  tries "set_reject d.example 1" 'echo x.d.example >control/rejectnonexist; chmod 600 control/rejectnonexist'
  tries "set_reject d.example 0" 'printf "%s\n" x.d.example d.example d.example.x >control/rejectnonexist'
  tries "set_reject d.example 1" 'rm -r control' 'rm control/rejectnonexist; mkdir control/rejectnonexist'
  tries "set_reject d.example 0" 'rm control/rejectnonexist; ln -s /run/no control/rejectnonexist'
  try : set_reject '' 1
  tries "add_bounce d.example line" : 'rm -r mailnames/d.example'
  try : add_bounce '' line
  tries "add_bounce d.example line" "sed -i /^popuser:/d /etc/passwd"
  every=$(perl -e 'print map chr, 1 .. 255')
  session sh -c "printf %s $(operate shell_escape "$every")"
}

@test "quotas over 2^31, and those that cannot be written or removed" {
  make
  quota=$box/@mbox.quota
  tries "write_mbox_quota d.example m 2147483647" :
  tries "write_mbox_quota d.example m -1" "chmod 777 $quota; chown 0:0 $quota" "chmod +t ${box%/*}; chown 0:0 $box $quota"
  tries "write_mbox_quota d.example m 1" "rm $quota; mkdir $quota" "rm -r $box" "rm $quota; ln -s /dev/full $quota" \
    "mv /usr/local/vlq/var/lock /usr/local/vlq/var/away"
  tries "remove_mbox_quota d.example m" :
  mv /usr/local/vlq/var/away /usr/local/vlq/var/lock
  tries "remove_mbox_quota d.example m" : "rm $quota" "rm $quota; mkdir $quota"
  tries "write_mbox_quota d.example m 4" :
  hold "$locks/$(printf %s "$quota" | md5sum | cut -c-32)"
  operate write_mbox_quota d.example m 5 3>&- &
  writer=$!
  wait_for_waiter >/dev/null
  cat "$quota" >>$shown
  kill $writer
  release
}
