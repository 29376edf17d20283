#include "common/conf.h"
#include "process/service.h"
#include "support.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>

// Time passes at once: the wait is noted, and what a case has happen meanwhile happens.
extern "C" unsigned sleep(unsigned seconds)
{
    FILE *trace = fopen("/run/trace", "ae");
    fprintf(trace, "sleep %u\n", seconds);
    fclose(trace);
    return system("[ ! -e /run/meanwhile ] || . /run/meanwhile") == 0 ? 0 : seconds;
}

// Scripts that note their calls: a web server that is up or not, a Tomcat whose stop fails, a ColdFusion.
constexpr const char *scene = R"(
rm -rf /run/trace /run/meanwhile /run/up /dev/hdv1 /var/www/vhosts /usr/local/cf
mkdir -p /var/qmail/mailnames /var/www/vhosts /usr/local/cf/bin; touch /run/trace
script() { printf '#!/bin/sh\necho "${0##*/} $1" >>/run/trace\n%s\n' "$2" >$1; chmod 755 $1; }
script /etc/init.d/httpd 'case $1 in status) [ -e /run/up ];; start) touch /run/up;; stop) rm -f /run/up;; esac'
script /etc/init.d/tomcat5 '[ $1 != stop ]'
script /usr/local/cf/bin/coldfusion; script /usr/local/cf/bin/jrun
script /usr/local/vlq/bin/ipc_sweep.sh 'exit 1'
# A process with Tomcat's marker in its command line, which does what $1 says on SIGTERM.
printf 'trap "$1" TERM; : >/run/ready; while :; do read line <>/run/never; done 2>/dev/null' >/run/tomcat
[ -e /run/never ] || mkfifo /run/never
tomcat() {
    rm -f /run/ready; bash /run/tomcat "$1" org.apache.catalina.startup.Bootstrap & until [ -e /run/ready ]; do :; done
}
meanwhile() { echo "$1" >/run/meanwhile; }
gone='while ps -A -o command | grep -q "[s]tartup.Bootstrap"; do :; done'
)";

static std::string repeated(const std::string &text, int count)
{
    return count == 0 ? "" : text + repeated(text, count - 1);
}

struct control_case {
    const char *setup, *service, *action;
    int status; // 10: success, 20: failure, 30: a child was left behind, 1: the process ended
    std::string reported, trace;
};

static void try_control(const control_case &tried)
{
    const std::string setup = std::string(scene) + tried.setup;
    const outcome made = run_program({"bash", "-ec", setup});
    ASSERT_EQ(made.err + std::to_string(made.status), "0") << tried.setup;
    const outcome done = in_child([&] {
        HTTPD_SERVICE = "httpd";
        HTTPD_VHOSTS_D = "/var/www/vhosts";
        const int result = service_control(tried.service, tried.action);
        return waitpid(-1, nullptr, WNOHANG) != -1 ? 30 : result == 0 ? 10 : 20;
    });
    EXPECT_EQ(done.status, tried.status) << tried.setup;
    EXPECT_EQ(messages(done.out), tried.reported) << tried.setup;
    EXPECT_EQ(read_file("/run/trace"), tried.trace) << tried.setup;
    run_program(
        {"sh", "-c", "umount /usr/bin/ps 2>/dev/null; pkill -9 -f /run/respawn; pkill -9 -f startup.Bootstrap"});
}

TEST(service_control, waits_for_the_web_server_and_cleans_up_after_it)
{
    const test_host host;
    const std::string probe = "httpd status\nsleep 1\n";
    const control_case cases[] = {
        {"meanwhile '[ $(grep -c sleep /run/trace) != 2 ] || touch /run/up'; sed -i s/touch.*up/:/ /etc/init.d/httpd",
         "httpd", "start", 10, "", "httpd start\n" + probe + probe + "httpd status\n"},
        {"sed -i s/touch.*up/:/ /etc/init.d/httpd", "httpd", "restart", 20, "",
         "httpd restart\n" + repeated(probe, 21)},
        {"", "httpd", "force-reload", 20, "", "httpd force-reload\n" + repeated(probe, 21)},
        {"script /etc/init.d/httpd 'exit 1'", "httpd", "force-reload", 20,
         "Service /etc/init.d/httpd failed to force-reload\n", "httpd force-reload\n"},
        {"script /etc/init.d/httpd 'exit 1'", "httpd", "stop", 20, "Service /etc/init.d/httpd failed to stop\n",
         "httpd stop\nipc_sweep.sh \n"},
        {"", "httpd", "STOP", 10, "", "httpd STOP\nipc_sweep.sh \n"},
        {"", "httpd", "status", 20, "", "httpd status\n"},
        {"", "httpd", "graceful", 10, "", "httpd restart\n"},
        {"cp /bin/sleep /run/httpd2-prefork; /run/httpd2-prefork 600 & script /etc/init.d/httpd 'exit 1'", "httpd",
         "graceful", 20, "Service /etc/init.d/httpd failed to gracefully restart\n", "httpd graceful\n"},
        {"pkill httpd2-prefork; rm /etc/init.d/httpd; mkdir /etc/init.d/httpd", "httpd", "stop", 1,
         "Not a regular file: '/etc/init.d/httpd'\n", ""},
    };
    for (const control_case &tried : cases) {
        try_control(tried);
        run_program({"sh", "-c", "rm -rf /etc/init.d/httpd"});
    }
}

TEST(service_control, stops_tomcat_by_force_and_bounces_only_a_running_web_server)
{
    const test_host host;
    const std::string bounce = "httpd status\nhttpd stop\nipc_sweep.sh \nhttpd start\nhttpd status\n";
    const std::string wait = "sleep 5\n";
    const std::string stop = "tomcat5 stop\n";
    const std::string no_ps = "send_signal_field(): /bin/ps failed\n";
    const control_case cases[] = {
        {"script /etc/init.d/tomcat5; touch /run/up", "tomcat5", "stop", 10, "", stop + bounce},
        {"touch /run/up", "tomcat5", "start", 10, "", "tomcat5 start\n"},
        {"script /etc/init.d/tomcat5 'exit 1'; touch /run/up", "tomcat5", "start", 20,
         "Service tomcat5 failed to start\n", "tomcat5 start\n"},
        {"tomcat 'exit'; meanwhile \"$gone\"", "tomcat5", "stop", 10, "", stop + wait + "httpd status\n"},
        {"tomcat ''; meanwhile \"[ \\$(grep -c sleep /run/trace) != 2 ] || { pkill -9 -f startup.Bootstrap; $gone; }\"",
         "tomcat5", "stop", 10, "", stop + wait + wait + "httpd status\n"},
        {"tomcat ''; meanwhile \"[ \\$(grep -c sleep /run/trace) != 6 ] || $gone\"; touch /run/up", "tomcat5", "stop",
         10, "", stop + repeated(wait, 6) + bounce},
        {"echo 'while :; do bash /run/tomcat \"\" $1.startup.Bootstrap; done' >/run/respawn; "
         "bash /run/respawn org.apache.catalina & "
         "meanwhile 'until ps -A -o command | grep -q \"[s]tartup.Bootstrap\"; do :; done'; . /run/meanwhile",
         "tomcat5", "stop", 20, "", stop + repeated(wait, 6)},
        {"mount --bind /bin/false /usr/bin/ps", "tomcat5", "stop", 20, no_ps + no_ps, stop + wait},
        // Only a marker that is an empty file makes a host virtual; what was put aside goes between stop and start.
        {"echo >/dev/hdv1; mkdir /var/www/vhosts/__deletedA; touch /run/up; script /etc/init.d/tomcat5", "tomcat5",
         "stop", 10, "", stop + bounce},
        {"touch /dev/hdv1 /run/up; script /etc/init.d/tomcat5; cd /var/www/vhosts; mkdir -p __deletedABCDEF/x kept\n"
         "sed -i '2a ls /var/www/vhosts >>/run/trace' /etc/init.d/httpd",
         "tomcat5", "stop", 10, "",
         stop + "httpd status\n__deletedABCDEF\nkept\nhttpd stop\n__deletedABCDEF\nkept\nipc_sweep.sh \n"
                "httpd start\nkept\nhttpd status\nkept\n"},
    };
    bool kept = true;
    for (const control_case &tried : cases) {
        try_control(tried);
        kept &= tried.setup[0] != 'e' || tried.setup[5] != '>' || exists("/var/www/vhosts/__deletedA");
    }
    EXPECT_TRUE(kept);
}

TEST(service_control, finds_each_service_by_its_own_name_and_script)
{
    const test_host host;
    const std::string unknown = "Unknown service: apache\n";
    const control_case cases[] = {
        {"", "apache", "start", 20, unknown, ""},
        {"", "coldfusion", "restart", 20, "CF not configured in Velqa.\n", ""},
        {"mariadb vlq -e 'insert into misc values (\"cf_instance_path\", \"/\")'", "jrun", "restart", 20,
         "CF not configured in Velqa.\n", ""},
        {"mariadb vlq -e 'update misc set val = \"/usr/local/cf\"'", "coldfusion", "restart", 10, "",
         "coldfusion restart\nhttpd status\n"},
        {"", "jrun", "status", 10, "", "jrun status\n"},
        {"rm /usr/local/cf/bin/jrun", "jrun", "stop", 1,
         "No such file '/usr/local/cf/bin/jrun': No such file or directory\n", ""},
        {"", "vlq/x", "stop", 20, "Unknown service: vlq/x\n", ""},
        {"", "smb", "stop", 1, "No such file '/etc/init.d/smb': No such file or directory\n", ""},
        {"printf '\\nNO_RESTART_DAEMON\\t\\n' >>/etc/vlq/vlq.conf", "apache", "start", 20, unknown, ""},
        {"echo 'NO_RESTART_DAEMON 1' >>/etc/vlq/vlq.conf", "apache", "start", 10, "", ""},
        {"rm /etc/vlq/.vlq.shadow; sed -i /NO_RESTART/d /etc/vlq/vlq.conf", "jrun", "stop", 1,
         "Unable to open admin password file: No such file or directory\nUnable to connect to the mysql database\n",
         ""},
    };
    for (const control_case &tried : cases)
        try_control(tried);
}
