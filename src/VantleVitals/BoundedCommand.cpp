#include "VantleVitals/BoundedCommand.h"

#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vantle {

std::expected<CommandOutput, std::string> runBounded(const std::vector<std::string>& argv,
                                                     std::chrono::milliseconds timeout, size_t maxBytes) {
    if (argv.empty()) return std::unexpected("no program was named");
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return std::unexpected(systemErrorText(errno));
    UniqueFd readEnd(fds[0]), writeEnd(fds[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), 2);
    std::vector<char*> args;
    for (auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    // A group of its own, so a program stopped for time takes its own children with it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t pid = 0;
    int spawned = ::posix_spawn(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) return std::unexpected(argv[0] + " could not be started: " + systemErrorText(spawned));
    writeEnd.reset();

    CommandOutput out;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    char buffer[8192];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd p{readEnd.get(), POLLIN, 0};
        int ready = ::poll(&p, 1, int(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        auto n = ::read(readEnd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (out.text.size() < maxBytes)
            out.text.append(buffer, std::min(size_t(n), maxBytes - out.text.size()));
    }
    if (timedOut) ::kill(-pid, SIGKILL);
    int wstatus = 0;
    while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    if (timedOut)
        return std::unexpected(argv[0] + " did not answer within " + std::to_string(timeout.count()) + " ms");
    if (!WIFEXITED(wstatus)) return std::unexpected(argv[0] + " was stopped by a signal");
    out.status = WEXITSTATUS(wstatus);
    return out;
}

} // namespace vantle
