// The in-use check's view of the process table, read from the real /proc by processes running as
// made-up people, because who may list whose open files is the kernel's decision.
#include "VantleStorage/RunningApps.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantle;

namespace {

constexpr uid_t someoneElse = 61001;
constexpr uid_t us = 61002;

// Becomes `uid` for good.
bool become(uid_t uid) {
    return ::setresgid(uid, uid, uid) == 0 && ::setresuid(uid, uid, uid) == 0;
}

// A process of `uid` that made itself undumpable, as ssh-agent and gpg-agent do; it waits to be
// ended. Returns once it is undumpable.
pid_t undumpableProcessOf(uid_t uid) {
    int ready[2];
    if (::pipe(ready) != 0) return -1;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(ready[0]);
        if (!become(uid) || ::prctl(PR_SET_DUMPABLE, 0) != 0) ::_exit(1);
        char one = 1;
        (void)!::write(ready[1], &one, 1);
        for (;;)
            ::pause();
    }
    ::close(ready[1]);
    char got = 0;
    bool ok = ::read(ready[0], &got, 1) == 1;
    ::close(ready[0]);
    return ok ? pid : -1;
}

void endProcess(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// Whether `us`, reading /proc for a home of its own, sees every open file: 1 yes, 0 no, -1 failed.
int seesOpenFilesAsUs() {
    pid_t pid = ::fork();
    if (pid == 0) {
        if (!become(us)) ::_exit(2);
        ::_exit(RunningApps::read("/proc", us).seesOpenFiles ? 1 : 0);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) > 1) return -1;
    return WEXITSTATUS(status);
}

} // namespace

TEST(RunningApps, AnotherPersonsUndumpableProcessWasTakenForASystemService) {
    if (::geteuid() != 0) GTEST_SKIP() << "running processes as two made-up people needs root";
    // The kernel gives an undumpable process's /proc folder to root, so going by the folder's owner
    // mistook another person's agent for a system service and claimed to see every open file.
    pid_t ours = undumpableProcessOf(us);
    ASSERT_GT(ours, 0);
    EXPECT_EQ(seesOpenFilesAsUs(), 1)
        << "our own undumpable agent hides only its descriptors; its name is still seen";

    pid_t theirs = undumpableProcessOf(someoneElse);
    ASSERT_GT(theirs, 0);
    EXPECT_EQ(seesOpenFilesAsUs(), 0) << "another person's process whose files cannot be listed";
    endProcess(theirs);
    endProcess(ours);
}
