load ../helper

# The driver's sleep() takes no time: it's a call, and then happens what /run/meanwhile says.
host() {
  mkdir -p /usr/local/cf/bin /var/qmail/mailnames
  script /etc/init.d/httpd 'case $1 in status) [ -e /run/up ];; start) touch /run/up;; stop) rm -f /run/up;; esac'
  script /etc/init.d/tomcat5 '[ $1 != stop ]'
  script /usr/local/cf/bin/coldfusion
  script /usr/local/cf/bin/jrun
  script /usr/local/vlq/bin/ipc_sweep.sh 'exit 1'
  rm -rf /run/up /run/meanwhile /etc/init.d/qmail
  cp /run/former/etc/init.d/qmail /etc/init.d/qmail
}

# Does each action of a service after something has happened in its host.
control() {
  local action
  for action in "${@:3}"; do
    host
    eval "$1"
    echo "# $1" >>$shown
    session operate service_control "$2" "$action"
  done
}

# A process with Tomcat's marker in its command line, which does what $1 says on SIGTERM.
tomcat() {
  cat >/run/tomcat <<<'trap "$1" TERM; : >/run/ready; while :; do read -r _ <>/run/never; done 2>/dev/null'
  [[ -e /run/never ]] || mkfifo /run/never
  rm -f /run/ready
  bash /run/tomcat "$1" org.apache.catalina.startup.Bootstrap 3>&- &
  until [[ -e /run/ready ]]; do sleep 0.01; done
}
gone='while ps -A -o command | grep -q "[s]tartup.Bootstrap"; do :; done'
end_tomcat="pkill -9 -f startup.Bootstrap; $gone"

after() {
  echo "[ \$(grep -c '^sleep' /run/host/calls) != $1 ] || { $2; }" >/run/meanwhile
}

@test "the web server is waited for, and cleaned up after" {
  never_up='sed -i "s/touch.*up/:/" /etc/init.d/httpd'
  control : httpd start
  control "$never_up; after 2 'touch /run/up'" httpd start
  control "$never_up" httpd restart
  control "after 21 'touch /run/up'" httpd force-reload
  control "after 20 'touch /run/up'" httpd force-reload
  control "script /etc/init.d/httpd 'exit 1'" httpd start stop restart status graceful
  control : httpd STOP Start graceful g status ''
  control 'touch /run/up' httpd status
  cp /bin/sleep /run/httpd2-prefork
  /run/httpd2-prefork 600 3>&- &
  control "script /etc/init.d/httpd 'exit 1'" httpd graceful restart
  kill $!
  for calls in clone clone3,vfork; do
    # Neither a script nor the clean-up can be started.
    session strace -qq -o /dev/null -e trace=$calls -e inject=$calls:error=EAGAIN \
      operate service_control httpd stop
  done
  for call in setsid chdir; do
    session strace -f -qq -o /dev/null -e trace=$call -e inject=$call:error=EPERM operate service_control qmail restart
  done
  # Debian 13's system() says that no child could be made, Debian 12's that the shell ended with 127.
  sed -i '/trying to clean Apache IPC objects: Resource/d' $shown
  control 'conf HTTPD_SERVICE apachectl2; cp /etc/init.d/httpd /etc/init.d/apachectl2' apachectl2 stop
  control : httpd stop
  # A name that begins as another service's does, in other letters.
  control 'conf HTTPD_SERVICE Postgresqx; cp /etc/init.d/httpd /etc/init.d/Postgresqx' postgresql start
}

@test "tomcat is stopped by force, and a running web server bounced" {
  control "script /etc/init.d/tomcat5; touch /run/up" tomcat5 stop
  control 'touch /run/up' tomcat5 start
  control "script /etc/init.d/tomcat5 'exit 1'; touch /run/up" tomcat5 start
  control "tomcat exit; after 1 '$gone'" tomcat5 stop
  control "tomcat ''; after 2 '$end_tomcat'" tomcat5 stop
  control "tomcat ''; after 5 '$end_tomcat'" tomcat5 stop
  control "tomcat ''; after 6 '$gone'; touch /run/up" tomcat5 stop
  # Another one appears while the last wait goes on.
  cat >/run/another <<<'bash /run/tomcat "" org.apache.catalina.startup.Bootstrap & until [ -e /run/ready ]; do :; done'
  control "tomcat ''; after 6 '$gone; rm /run/ready; . /run/another'" tomcat5 stop
  eval "$end_tomcat"
  mount --bind /bin/false /usr/bin/ps
  control : tomcat5 stop
  umount /usr/bin/ps
  # Only a marker that is an empty file makes a host virtual; what was put aside goes between stop and start.
  for marker in 'echo >' 'mkdir ' 'touch '; do
    control "$marker/dev/hdv1; mkdir -p /var/www/vhosts/{__deletedABCDEF/x,kept}; touch /run/up; script /etc/init.d/tomcat5
      sed -i '2a ls /var/www/vhosts >>/run/host/calls' /etc/init.d/httpd" tomcat5 stop
    rm -r /dev/hdv1 /var/www/vhosts/*
  done
}

@test "coldfusion is found by its setting" {
  control : coldfusion restart
  for path in '' / /u; do
    sql "delete from misc; insert misc values ('cf_instance_path', '$path')"
    control : coldfusion restart
  done
  sql 'update misc set val = "/usr/local/cf"'
  for words in 'coldfusion restart' 'jrun start' 'coldfusion status'; do control 'touch /run/up' $words; done
  control "touch /run/up; script /usr/local/cf/bin/jrun 'exit 1'" jrun stop
  control 'rm /etc/vlq/.vlq.shadow' jrun stop
}

@test "every service has its script, and each way a script can end its message" {
  for service in vlq courier-imap mysqld named qmail stunnel postgresql mailman drwebd smb network xinetd nothing Qmail qmai; do
    control "script /etc/init.d/$service" $service reload
  done
  qmail=/etc/init.d/qmail
  for how in 'rm -f' 'chmod 644' ': >' 'rm $qmail; mkdir ' 'rm $qmail; mkfifo ' 'rm $qmail; ln -s /proc/1/none '; do
    control "$how $qmail" qmail start
  done
  control 'conf PRODUCT_RC_D /etc/passwd' qmail start
  conf PRODUCT_RC_D /etc/init.d
  script $qmail 'ls /proc/self/fd | tr "\n" " " >>/run/host/calls; readlink /proc/self/fd/[012] >>/run/host/calls
    echo lost; cut -d" " -f6 /proc/$$/stat | grep -qx $$ && pwd >>/run/host/calls'
  control : qmail start
  for end in 'exit 255' 'kill -9 $$' 'kill -STOP $$'; do control "script $qmail '$end'" qmail start status; done
  pkill -KILL -x qmail
  script $qmail
  sed -i 's,/bin/sh,/no/sh,' $qmail
  session operate service_control qmail start
}
