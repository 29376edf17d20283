// The time of one util_exec of an empty utility, under the descriptor limit that the caller has set.
//
//   child RUNS REPETITIONS      prints the descriptor limit and the median microseconds of one run

#include "common/conf.h"
#include "common/error.h"
#include "process/exec.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <vector>

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    program_name = argv[0];
    load_conf();
    const int runs = atoi(argv[1]);
    std::vector<double> times;
    for (int turn = 0; turn < atoi(argv[2]); ++turn) {
        const auto start = std::chrono::steady_clock::now();
        for (int run = 0; run < runs; ++run)
            if (util_exec("empty", static_cast<char *>(nullptr)) != 0)
                return 1;
        const std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
        times.push_back(spent.count() / runs);
    }
    std::sort(times.begin(), times.end());
    printf("%d %.1f\n", getdtablesize(), times[times.size() / 2]);
}
