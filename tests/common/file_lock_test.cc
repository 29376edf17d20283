#include "common/file_lock.h"

#include "support.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>

TEST(file_lock, waits_for_the_holder_of_the_file_named_after_the_path_text)
{
    const test_folder folder;
    const std::string name = folder.path + "/product/var/lock/files/8fa14cdd754f91cc6554c9e71929cce7";
    write_file(name, "old");
    auto lock = lock_file_exclusive("f", 1);
    EXPECT_EQ(lock->path.get() + read_file(name), name);
    EXPECT_EQ(fcntl(lock->fd, F_GETFD), FD_CLOEXEC);
    const pid_t waiter = fork();
    if (waiter == 0) {
        close(lock->fd); // the copy that fork() made holds the lock too
        _exit(lock_file_is_held(lock_file_exclusive("f", 1)) ? 0 : 1);
    }
    const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(waiter) + " ";
    while (read_file("/proc/locks").find(waiting) == std::string::npos)
        ASSERT_EQ(waitpid(waiter, nullptr, WNOHANG), 0) << "it did not wait";
    int status = -1;
    EXPECT_TRUE(lock_file_release(std::move(lock)) == 0 && waitpid(waiter, &status, 0) == waiter && status == 0);
}

TEST(file_lock, reports_what_cannot_be_opened_or_closed)
{
    const test_folder folder;
    const outcome done = in_child([] {
        auto missing = lock_file_open("no/f", O_RDWR, LOCK_EX, 0), closed = lock_file_exclusive("f", 0);
        const bool as_said = missing->fd < 0 && close(closed->fd) == 0 && lock_file_release(nullptr) == -1;
        return as_said && lock_file_release(std::move(missing)) == 0 && lock_file_release(std::move(closed)) == -1 ? 0
                                                                                                                   : 1;
    });
    EXPECT_EQ(std::to_string(done.status) + messages(done.out),
              "0Unable to open file \"no/f\": No such file or directory.\n"
              "An error occured during closing 'f' file: Bad file descriptor\n");
}
