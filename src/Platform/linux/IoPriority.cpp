#include "Platform/IoPriority.h"

#include <linux/ioprio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantle {

namespace {
// Who 0 with IOPRIO_WHO_PROCESS names the calling thread, not the whole process.
int getPriority() {
    return static_cast<int>(::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0));
}
bool setPriority(int value) {
    return ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, value) == 0;
}
} // namespace

IdleIoPriority::IdleIoPriority() {
    previous_ = getPriority();
    if (previous_ < 0) return;
    lowered_ = setPriority(IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
}

IdleIoPriority::~IdleIoPriority() {
    if (lowered_) setPriority(previous_);
}

int IdleIoPriority::current() {
    return getPriority();
}

} // namespace vantle
