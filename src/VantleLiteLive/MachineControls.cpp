#include "VantleLiteLive/MachineControls.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace vantle {

std::expected<void, std::string> StandInMachine::restart() {
    mac_->act("restart");
    return {};
}

SessionMachine::SessionMachine(std::map<std::string, std::string> environment, Runner runner)
    : environment_(std::move(environment)), runner_(runner ? std::move(runner) : Runner(&spawnAndWait)) {}

std::expected<void, std::string> SessionMachine::restart() {
    auto send = [](std::string bus, std::string destination, std::string object, std::string method,
                   std::vector<std::string> arguments) {
        std::vector<std::string> command = {"dbus-send", "--" + bus, "--print-reply", "--dest=" + destination,
                                            object,      method};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return command;
    };
    // The session managers ask every app to quit first, so unsaved work is asked about; logind
    // would not, so it is the last resort.
    std::vector<std::vector<std::string>> tries;
    if (environment_.contains("DBUS_SESSION_BUS_ADDRESS")) {
        tries.push_back(send("session", "org.gnome.SessionManager", "/org/gnome/SessionManager",
                             "org.gnome.SessionManager.Reboot", {}));
        tries.push_back(
            send("session", "org.kde.Shutdown", "/Shutdown", "org.kde.Shutdown.logoutAndReboot", {}));
        tries.push_back(send("session", "org.xfce.SessionManager", "/org/xfce/SessionManager",
                             "org.xfce.Session.Manager.Restart", {"boolean:true"}));
    }
    tries.push_back(send("system", "org.freedesktop.login1", "/org/freedesktop/login1",
                         "org.freedesktop.login1.Manager.Reboot", {"boolean:true"}));
    for (const auto& command : tries)
        if (runner_(command) == 0) return {};
    return std::unexpected(std::string(notAsked));
}

int SessionMachine::spawnAndWait(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (const auto& a : command)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The reply is not ours to print.
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace vantle
