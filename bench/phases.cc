// A stopwatch around the calls that a run's time goes into. The linker leads each of them here first; the program's own
// code stays as it is. At the end of the run the sums go into the file that PHASES names.

#include "common/file_str.h"
#include "common/safe_open.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mysql.h>
#include <sys/resource.h>
#include <sys/types.h>

namespace {

enum phase { database, children, crypting, directories, line_edits, phase_count };

struct phase_sum {
    const char *name;
    double seconds;
    long calls;
};

std::array<phase_sum, phase_count> sums = {{
    {"database", 0, 0},
    {"children", 0, 0},
    {"crypt", 0, 0},
    {"directories", 0, 0},
    {"line_edits", 0, 0},
}};
long connections = 0;
int depth = 0; // a measured call inside another belongs to the outer one

double now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

template <typename Call> auto measure(phase where, Call call)
{
    const double start = depth++ == 0 ? now() : 0;
    auto result = call();
    if (--depth == 0) {
        sums[where].seconds += now() - start;
        ++sums[where].calls;
    }
    return result;
}

double seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

const char *const path = getenv("PHASES"); // before the program empties its environment

__attribute__((destructor)) void write_sums()
{
    FILE *file = path ? fopen(path, "we") : nullptr;
    if (!file)
        return;
    rusage own;
    rusage waited;
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &waited);
    fprintf(file, "user %.3f\nsystem %.3f\n", seconds(own.ru_utime), seconds(own.ru_stime));
    fprintf(file, "child_cpu %.3f\n", seconds(waited.ru_utime) + seconds(waited.ru_stime));
    fprintf(file, "peak_kib %ld\nconnections %ld\n", own.ru_maxrss, connections);
    for (const phase_sum &sum : sums)
        fprintf(file, "%s %.3f\n%s_calls %ld\n", sum.name, sum.seconds, sum.name, sum.calls);
    fclose(file);
}

} // namespace

// Declares the real call and defines the one that the linker puts before it.
#define MEASURED(where, result, name, parameters, arguments)                                                           \
    extern "C" result __real_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters                                                                         \
    {                                                                                                                  \
        return measure(where, [&] { return __real_##name arguments; });                                                \
    }

MEASURED(database, int, mysql_query, (MYSQL * db, const char *query), (db, query))
MEASURED(database, int, mysql_real_query, (MYSQL * db, const char *query, unsigned long length), (db, query, length))
MEASURED(database, MYSQL_RES *, mysql_store_result, (MYSQL * db), (db))
MEASURED(children, int, system, (const char *command), (command))
MEASURED(children, int, _Z15service_controlPKcS0_, (const char *service, const char *action), (service, action))
MEASURED(crypting, char *, crypt, (const char *phrase, const char *salt), (phrase, salt))
MEASURED(directories, int, _Z10safe_mkdirPKcj, (const char *path, mode_t mode), (path, mode))
MEASURED(directories, safe_step, _Z13safe_make_dirPKcjjj, (const char *path, uid_t uid, gid_t gid, mode_t mode),
         (path, uid, gid, mode))
MEASURED(directories, int, _Z10safe_chownPKc9safe_kindjj, (const char *path, safe_kind kind, uid_t uid, gid_t gid),
         (path, kind, uid, gid))
MEASURED(directories, int, _Z10safe_chmodPKc9safe_kindj, (const char *path, safe_kind kind, mode_t mode),
         (path, kind, mode))
MEASURED(directories, safe_step, _Z9safe_givePKc9safe_kindjjj,
         (const char *path, safe_kind kind, uid_t uid, gid_t gid, mode_t mode), (path, kind, uid, gid, mode))
MEASURED(directories, int, _Z10safe_chdirPKc, (const char *path), (path))
MEASURED(directories, char *, getcwd, (char *path, size_t size), (path, size))
MEASURED(directories, int, _Z11safe_unlinkPKc, (const char *path), (path))
MEASURED(directories, int, _Z16write_mbox_quotaPKcS0_l, (const char *domain, const char *name, std::int64_t quota),
         (domain, name, quota))
MEASURED(directories, int, _Z17remove_mbox_quotaPKcS0_, (const char *domain, const char *name), (domain, name))
MEASURED(line_edits, int, _Z13file_str_linePKcS0_4editi, (const char *path, const char *line, edit action, int mode),
         (path, line, action, mode))
MEASURED(line_edits, edit_end, _Z12file_str_endPKcS0_4editi,
         (const char *path, const char *line, edit action, int mode), (path, line, action, mode))
MEASURED(line_edits, int, _Z8file_strPKcPKS0_4editi,
         (const char *path, const char *const *lines, edit action, int mode), (path, lines, action, mode))
MEASURED(line_edits, int, _Z11create_filePKc, (const char *path), (path))
MEASURED(line_edits, int, _Z23truncate_or_create_filePKc, (const char *path), (path))

extern "C" MYSQL *__real_mysql_real_connect(MYSQL *db, const char *host, const char *user, const char *password,
                                            const char *name, unsigned port, const char *socket, unsigned long flags);
extern "C" MYSQL *__wrap_mysql_real_connect(MYSQL *db, const char *host, const char *user, const char *password,
                                            const char *name, unsigned port, const char *socket, unsigned long flags);
extern "C" MYSQL *__wrap_mysql_real_connect(MYSQL *db, const char *host, const char *user, const char *password,
                                            const char *name, unsigned port, const char *socket, unsigned long flags)
{
    ++connections;
    return measure(database,
                   [&] { return __real_mysql_real_connect(db, host, user, password, name, port, socket, flags); });
}

extern "C" void __real_mysql_close(MYSQL *db);
extern "C" void __wrap_mysql_close(MYSQL *db);
extern "C" void __wrap_mysql_close(MYSQL *db)
{
    measure(database, [&] {
        __real_mysql_close(db);
        return 0;
    });
}
