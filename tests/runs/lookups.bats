load ../helper

# Asks on a connection of its own, then on one that is lent.
ask() {
  session operate "$@"
  LENT=1 session operate "$@"
}

instead() {
  QUERY=$1 INSTEAD=$2 session operate connect
}

@test "no value is not no answer" {
  sql "insert misc values ('kept', 'x'), ('null', null), ('admin_email', 'admin@a.test');
    insert clients (id, login, email) values (1, 'a', 'owner@a.test'), (2, 'b', ''), (3, 'c', null);
    insert Limits values (1, 'mbox_quota', '12'), (2, 'mbox_quota', '34'), (2, 'other', '56');
    insert Parameters values (1, 'key', 'of mail'), (1, 'other', 'no'), (2, 'key', 'of web'), (1, 'long', repeat('z', 5000));
    insert domains (id, name, cl_id, limits_id) values (1, 'a.test', 1, 1), (2, 'bücher.test', 2, 2), (3, 'xn--tda.test', 3, 2);
    insert DomainServices (dom_id, type, parameters_id) values (1, 'mail', 1), (1, 'web', 2), (2, 'mail', null);
    insert Components (name, version) values ('old', 'not_installed'), ('quo''te', '')"
  for name in kept absent null "it's"; do
    ask get_misc_param "$name"
  done
  for id in 1 2 3 "'"; do
    ask get_dom_Limit "$id" mbox_quota
    ask get_client_email "$id"
  done
  ask get_dom_Limit 1 '"'
  ask get_DomainService_Parameter 1 web key
  ask get_DomainService_Parameter 1 mail long
  ask get_DomainService_Parameter 2 mail key
  ask get_DomainService_Parameter 1 mail '\'
  ask get_DomainService_Parameter '\' mail key
  ask get_DomainService_Parameter 1 '\' key
  for name in a.test bücher.test xn--bcher-kva.test ü.test no.test "a'"; do
    ask get_dom_id "$name"
  done
  for name in old "quo'te" "ab'sent"; do
    ask is_component_installed "$name"
  done
  sql 'delete from misc; rename table Limits to a, Parameters to b'
  ask get_client_email 2
  ask get_dom_Limit 1 mbox_quota
  ask get_DomainService_Parameter 1 mail key
  sql 'rename table clients to c, domains to d'
  ask get_client_email 1
  ask get_dom_id a.test
  rm /etc/vlq/.vlq.shadow
  for words in 'get_misc_param x' 'get_dom_Limit 1 x' 'get_client_email 1' 'is_component_installed x' 'get_dom_id x'; do
    # shellcheck disable=SC2086
    session operate $words
  done
}

@test "a connection is prepared for its server" {
  version="SHOW VARIABLES LIKE 'version'" setting="SELECT val FROM misc WHERE param='mysql41_compatible'"
  instead 'set foreign_key_checks=0' 'select 1 from nothing'
  for answer in 'select 1 from nothing' 'do 1' 'select 1, 2 limit 0' "select 'version', null" "select 1, '4.0.27-standard'" \
    "select 1, '3.23.58'" "select 1, '4.1.22'" "select 1, '40.0.1'" "select 1, '30.1'"; do
    instead "$version" "$answer"
  done
  for answer in 'select 1 from nothing' 'do 1' 'select 1 limit 0' 'select null' "select ''" "select 'false'" "select 'False'" \
    "select 'falsee'"; do
    instead "$setting" "$answer"
  done
  instead 'SET NAMES binary' 'select 1 from nothing'
  sql 'drop table misc'
  session operate connect
}

@test "a key has what its line gives it" {
  for lines in 'A b\n  KEY   /var/qmail  \nC d\n' '\v\fKEY\t\v inner  blanks\tstay\f \t\n' 'A b\r\n\r\n \n\nKEY value\r\n' \
    'KEY one\nKEY two\n' 'KEY\nKEY \t\nKEY three\n' '#KEY 1\n# KEY 2\nKEYS 3\nkey 4\nA KEY\n' 'KEY\nvalue\n' 'A b\nKEY  ' \
    'A b\nKEY' 'A b\nKEY value \t' 'XKEY 1\nKEY\t2\nKE 3\n' ''; do
    # shellcheck disable=SC2059
    printf "$lines" >/etc/vlq/vlq.conf
    session operate conf_get KEY
  done
}

@test "names are converted, or it is said why not" {
  for name in Mail.Example_x Bücher.ü.example "$(printf %064d 1)" xn--ü '' $'\xff' a..b; do
    session operate idn_toascii "$name"
    session operate idn_toascii_safe "$name"
    session operate idn_email_toascii "ü@$name"
  done
  session operate idn_email_toascii a@ü@example
  session operate idn_email_toascii ü.example
  session operate idn_email_toascii_safe ü.example
  session operate idn_email_toascii_safe ü@xn--ü
  for code in {0..10} 42 200 201 202; do
    session operate idn_error_text "$code"
  done
}

@test "reports go to both streams, whole, with the errno of the moment" {
  session operate report /usr/sbin/mboxfix 0 0 told 0
  session operate report ./mboxfix 2 0 $'told\n' 0
  session operate report mboxfix 2 7 '' 0
  session operate report '' 13 0 told 0
  for name in / /usr/sbin/ //a// .; do
    session operate report $name 0 0 told 0
  done
  for length in 4094 4095 4096 4097 9000; do
    session operate report m 0 0 end $length
    session operate report m 2 1 end $length
  done
  session sh -c 'operate report m 0 0 told 0 >/dev/full'
}

@test "accounts, directories and salts" {
  mkdir -p /run/dirs && cd /run/dirs
  mkdir -p old from d/e d/to d2
  ln -s d/e link
  umask 077
  session operate make_dir /run/dirs/new
  session operate make_dir /run/dirs/old
  session operate make_dir none/d
  session operate make_dir /proc/sys
  session operate make_dir /proc/1/task
  for path in link none /proc/sys /proc/1/task d2; do
    session operate set_owner_mode $path
  done
  session operate rename_dir from d/moved
  session operate rename_dir none d
  session operate rename_dir d d/new
  session operate rename_dir d old
  for pair in 'd/to/../to ./d/' 'd d' 'd2 d' 'd /' 'link d' 'd/e link' 'd/none d' 'd/e none'; do
    # shellcheck disable=SC2086
    session operate is_inside_dir $pair
  done
  session operate random_salt 1
  session operate random_salt 2
  tree /run/dirs
}
