// The in-use check's view of the process table, read from a real /proc by processes running as
// made-up people, because who may list whose open files is the kernel's decision.
#include "VantleStorage/RunningApps.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantle;
using vantle::testing::TempDir;

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

// Whether `us`, reading `procRoot` for a home of its own, sees every open file: 1 yes, 0 no, -1 failed.
int seesOpenFilesAsUs(const std::string& procRoot) {
    pid_t pid = ::fork();
    if (pid == 0) {
        if (!become(us)) ::_exit(2);
        ::_exit(RunningApps::read(procRoot, us).seesOpenFiles ? 1 : 0);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) > 1) return -1;
    return WEXITSTATUS(status);
}

// Exit codes of the case run in its own process table.
enum Outcome { passed = 0, ownAgentHid = 10, otherAgentSeen = 11, setUpFailed = 12, notAllowed = 77 };

// The case itself. Run as the first process of a process table of its own, so that a process another
// test starts as some other person at the same moment cannot change what the table holds.
int ownAgentAndAnothersAgent(const std::string& procRoot) {
    pid_t ours = undumpableProcessOf(us);
    if (ours <= 0) return setUpFailed;
    if (seesOpenFilesAsUs(procRoot) != 1) return ownAgentHid;
    pid_t theirs = undumpableProcessOf(someoneElse);
    if (theirs <= 0) return setUpFailed;
    int outcome = seesOpenFilesAsUs(procRoot) == 0 ? passed : otherAgentSeen;
    endProcess(theirs);
    endProcess(ours);
    return outcome;
}

// Runs `body` in a new process-ID namespace whose /proc is mounted at `procRoot`; its exit code.
int inOwnProcessTable(const std::string& procRoot, int (*body)(const std::string&)) {
    pid_t outer = ::fork();
    if (outer == 0) {
        if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) ::_exit(notAllowed);
        pid_t first = ::fork(); // the new table's process 1, which the reader passes over
        if (first == 0) {
            if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("proc", procRoot.c_str(), "proc", 0, nullptr) != 0)
                ::_exit(notAllowed);
            ::_exit(body(procRoot));
        }
        int status = 0;
        if (first < 0 || ::waitpid(first, &status, 0) != first || !WIFEXITED(status)) ::_exit(setUpFailed);
        ::_exit(WEXITSTATUS(status));
    }
    int status = 0;
    if (outer < 0 || ::waitpid(outer, &status, 0) != outer || !WIFEXITED(status)) return setUpFailed;
    return WEXITSTATUS(status);
}

} // namespace

TEST(RunningApps, OurUndumpableAgentIsPassedOverAndAnotherPersonsLeavesTheCheckBlind) {
    if (::geteuid() != 0) GTEST_SKIP() << "running processes as two made-up people needs root";
    // Both agents hide their descriptors. Ours is passed over (its name is still seen); another
    // person's leaves the check blind, whoever the kernel says owns its /proc folder.
    TempDir dir;
    ::chmod(dir.path().c_str(), 0755); // the made-up person reads the table through it
    int outcome = inOwnProcessTable(dir.mkdir("proc").string(), ownAgentAndAnothersAgent);
    if (outcome == notAllowed) GTEST_SKIP() << "this system does not allow a process table of our own";
    EXPECT_EQ(outcome, passed)
        << (outcome == ownAgentHid ? "our own undumpable agent counted as hiding"
            : outcome == otherAgentSeen
                ? "another person's process whose files cannot be listed was passed over"
                : "the processes could not be set up");
}
