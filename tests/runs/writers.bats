load ../helper

# Does an operation in a host that a run has made, where something was put in its way; shows what it changed there.
try() {
  rm -rf /var/qmail
  cp -a /run/made /var/qmail
  cd /var/qmail
  eval "$1"
  remember
  echo "# $1" >>$shown
  session operate "${@:2}"
  changes
  cp /run/former/etc/passwd /etc/passwd
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
}

@test "a domain that cannot be registered is taken out again" {
  make
  try 'rm -r mailnames' add_mail_domain d.example 0
  try 'rm control/rcpthosts; mkdir control/rcpthosts' add_mail_domain d.example 0
  try 'rm control/virtualdomains; ln -s /run/no/file control/virtualdomains' add_mail_domain d.example 0
  try 'ln -s /run/no/file users/assign.tmp; rm users/assign' add_mail_domain d.example 0
  try 'rm users/poppasswd; rm -r mailnames/d.example; touch mailnames/d.example' add_mail_domain d.example 0
  try : add_mail_domain d.example 1
  try : add_mail_domain no.example 1
  try : add_mail_domain '' 0
  try : add_mail_domain "$(printf %064d 1).example" 0
  touch /dev/hdv1
  try 'rm control/rcpthosts; mkdir control/rcpthosts' add_mail_domain d.example 0
}

@test "a domain alias that cannot be registered is taken out again" {
  make
  try 'rm control/rcpthosts; ln -s /run/no/file control/rcpthosts' add_domain_alias d.example e.example
  try 'rm control/virtualdomains; ln -s /run/no/file control/virtualdomains' add_domain_alias d.example e.example
  try 'rm control/virtualdomains; mkdir control/virtualdomains.tmp control/virtualdomains' add_domain_alias d.example e.example
  try : add_domain_alias d.example ''
}

@test "a mailbox that cannot be made is taken out again" {
  make
  try 'rm users/assign' add_mailbox m d.example
  try 'rm users/assign users/poppasswd' add_mailbox m d.example
  try 'rm -r mailnames/d.example' add_mailbox m d.example
  try "rm -r $box; touch $box" add_mailbox m d.example
  try "rm $box/.qmail; mkdir $box/.qmail" add_mailbox m d.example
  try "rm -r $box/Maildir; touch $box/Maildir" add_mailbox m d.example
  try "rm -r $box/@attachments; touch $box/@attachments" add_mailbox m d.example
  for name in .m é '' a/b; do
    try : add_mailbox "$name" d.example
  done
  try : remove_mailbox m d.example
  try : add_mailbox m ''
  try : add_mailbox n "$(printf %064d 1).example"
  try "sed -i /^popuser:/d /etc/passwd" add_mailbox m d.example
  try "sed -i /^popuser:/d /etc/passwd" remove_mailbox m d.example
}

@test "a mailbox that cannot be enabled, and deliveries that cannot be added" {
  make
  try : add_postbox m d.example new
  try : add_postbox m d.example ''
  try "rm -r $box" add_postbox m d.example new
  try "rm $box/.qmail; ln -s /run/no/file $box/.qmail" add_postbox m d.example new
  try "rm users/poppasswd; ln -s /run/no/file users/poppasswd" add_postbox m d.example new
  try : add_postbox .m d.example new
  try "chmod 644 $box/.qmail; chown 0:0 $box/.qmail" add_forward m d.example a@ü.example
  try "rm -r $box" add_forward m d.example a@far.example
  for address in nobody @ "a@$(printf %064d 1)" 'a@@b' é@é; do
    try : add_forward m d.example "$address"
  done
  try : add_forward '' d.example a@far.example
  try "chmod 644 $box/.qmail; chown 0:0 $box/.qmail; sed -i /auto/d $box/.qmail" add_autoresponder m d.example
  try "rm -r $box" add_autoresponder m d.example
  try : add_autoresponder m ''
  try : add_mail_alias m d.example new
  try 'rm users/assign' add_mail_alias m d.example z
  try : add_mail_alias m d.example é
  try : add_mail_alias .m d.example z
  try 'rm /etc/vlq/.vlq.shadow' add_mail_alias m d.example x
}

@test "policies that cannot be set" {
  make
  try 'echo x.d.example >control/rejectnonexist; chmod 600 control/rejectnonexist' set_reject d.example 1
  try 'printf "%s\n" x.d.example d.example d.example.x >control/rejectnonexist' set_reject d.example 0
  try 'rm -r control' set_reject d.example 1
  try 'rm control/rejectnonexist; mkdir control/rejectnonexist' set_reject d.example 1
  try 'rm control/rejectnonexist; ln -s /run/no control/rejectnonexist' set_reject d.example 0
  try : set_reject '' 1
  try : add_bounce d.example line
  try 'rm -r mailnames/d.example' add_bounce d.example line
  try : add_bounce '' line
  try "sed -i /^popuser:/d /etc/passwd" add_bounce d.example line
  every=$(perl -e 'print map chr, 1 .. 255')
  session sh -c "printf %s $(operate shell_escape "$every")"
}

@test "quotas over 2^31, and those that cannot be written or removed" {
  make
  quota=$box/@mbox.quota
  try : write_mbox_quota d.example m 2147483647
  try "chmod 777 $quota; chown 0:0 $quota" write_mbox_quota d.example m -1
  try "rm $quota; mkdir $quota" write_mbox_quota d.example m 1
  try "rm -r $box" write_mbox_quota d.example m 1
  try "rm $quota; ln -s /dev/full $quota" write_mbox_quota d.example m 1
  try "mv /usr/local/vlq/var/lock /usr/local/vlq/var/away" write_mbox_quota d.example m 1
  try : remove_mbox_quota d.example m
  mv /usr/local/vlq/var/away /usr/local/vlq/var/lock
  try : remove_mbox_quota d.example m
  try "rm $quota" remove_mbox_quota d.example m
  try "rm $quota; mkdir $quota" remove_mbox_quota d.example m
  try : write_mbox_quota d.example m 4
  hold "$locks/$(printf %s "$quota" | md5sum | cut -c-32)"
  operate write_mbox_quota d.example m 5 3>&- &
  writer=$!
  wait_for_waiter >/dev/null
  cat "$quota" >>$shown
  kill $writer
  release
}
