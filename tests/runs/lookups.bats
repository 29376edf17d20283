load ../helper

# Asks on a connection of its own, then on one that is lent.
ask() {
  local words
  for words; do
    operations "$words"
    LENT=1 operations "$words"
  done
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
  ask "get_misc_param "{kept,absent,null,"it's"} "get_dom_Limit "{1,2,3,"'"}' mbox_quota' "get_client_email "{1,2,3,"'"} \
    'get_dom_Limit 1 "' 'get_DomainService_Parameter '{'1 web key','1 mail long','2 mail key','1 mail \','\ mail key','1 \ key'} \
    'get_dom_id '{a.test,bücher.test,xn--bcher-kva.test,ü.test,no.test,"a'"} 'is_component_installed '{old,"quo'te","ab'sent"}
  sql 'delete from misc; rename table Limits to a, Parameters to b'
  ask 'get_client_email 2' 'get_dom_Limit 1 mbox_quota' 'get_DomainService_Parameter 1 mail key'
  sql 'rename table clients to c, domains to d'
  ask 'get_client_email 1' 'get_dom_id a.test'
  rm /etc/vlq/.vlq.shadow
  operations 'get_misc_param x' 'get_dom_Limit 1 x' 'get_client_email 1' 'is_component_installed x' 'get_dom_id x'
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
  NO_MEMORY=1 operations connect 'set_reject a.test 1'
  operations connect
}

@test "a key has what its line gives it" {
  for lines in 'A b\n  KEY   /var/qmail  \nC d\n' '\v\fKEY\t\v inner  blanks\tstay\f \t\n' 'A b\r\n\r\n \n\nKEY value\r\n' \
    'KEY one\nKEY two\n' 'KEY\nKEY \t\nKEY three\n' '#KEY 1\n# KEY 2\nKEYS 3\nkey 4\nA KEY\n' 'KEY\nvalue\n' 'A b\nKEY  ' \
    'A b\nKEY' 'A b\nKEY value \t' 'XKEY 1\nKEY\t2\nKE 3\n' ''; do
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
  operations idn_email_toascii\ {a@ü@example,ü.example} idn_email_toascii_safe\ ü{.example,@xn--ü} \
    idn_error_text\ {{0..10},42,200,201,202}
}

@test "reports go to both streams, whole, with the errno of the moment" {
  session operate report /usr/sbin/mboxfix 0 0 told 0
  session operate report ./mboxfix 2 0 $'told\n' 0
  session operate report mboxfix 2 7 '' 0
  session operate report '' 13 0 told 0
  operations 'report '{/,/usr/sbin/,//a//,.}' 0 0 told 0' 'report m '{0\ 0,2\ 1}' end '{4094,4095,4096,4097,9000}
  session sh -c 'operate report m 0 0 told 0 >/dev/full'
}

@test "accounts, directories and salts" {
  mkdir -p /run/dirs && cd /run/dirs
  mkdir -p old from d/e d/to d2
  ln -s d/e link
  umask 077
  operations make_dir\ {/run/dirs/new,/run/dirs/old,none/d,/proc/sys,/proc/1/task} \
    set_owner_mode\ {link,none,/proc/sys,/proc/1/task,d2} 'rename_dir '{'from d/moved','none d','d d/new','d old'} 'copy_file_locked /dev/null copy' \
    'is_inside_dir '{'d/to/../to ./d/','d d','d2 d','d /','link d','d/e link','d/none d','d/e none'} random_salt\ {1,2}
  tree /run/dirs
}
