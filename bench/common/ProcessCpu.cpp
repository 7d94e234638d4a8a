#include "common/ProcessCpu.h"

#include <ctime>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace Bench {

std::int64_t process_cpu_ns(pid_t pid) {
    std::error_code error;
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", error);
    if (error) return -1;
    std::int64_t sum = 0;
    for (const auto& task : tasks) {
        std::int64_t on_cpu_ns = 0;
        std::ifstream(task.path() / "schedstat") >> on_cpu_ns;
        sum += on_cpu_ns;
    }
    return sum;
}

std::int64_t own_cpu_ns() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<std::int64_t>(used.tv_sec) * 1'000'000'000 + used.tv_nsec;
}

}  // namespace Bench
