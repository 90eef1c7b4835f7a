#include "Cores.h"

#include <cstddef>
#include <sched.h>

namespace {

std::string prefix;

} // namespace

void leaveMeasuredCore() {
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) != 0 || CPU_COUNT(&cores) < 2) {
        return;
    }
    std::size_t measured = CPU_SETSIZE - 1;
    while (!CPU_ISSET(measured, &cores)) {
        --measured;
    }
    CPU_CLR(measured, &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) == 0) {
        prefix = "taskset --cpu-list " + std::to_string(measured) + " ";
    }
}

const std::string& onMeasuredCore() {
    return prefix;
}
