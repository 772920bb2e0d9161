#include "Platform/OpenFileLimit.h"

#include <algorithm>
#include <sys/resource.h>

namespace vantle {

std::uint64_t raiseOpenFileLimit(std::uint64_t wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min<rlim_t>(wanted, limit.rlim_max);
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    return limit.rlim_cur;
}

} // namespace vantle
