#include "VantleStorage/RunningApps.h"

#include "Platform/DirectoryReader.h"
#include "Platform/UniqueFd.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {

// Accounts below this are the system's own on Debian-like systems; 65534 is "nobody".
constexpr uid_t firstPersonUid = 1000;
constexpr uid_t nobodyUid = 65534;

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::optional<std::string> linkAt(int dirFd, const char* name) {
    std::string out(4096, '\0');
    auto length = ::readlinkat(dirFd, name, out.data(), out.size());
    if (length <= 0 || static_cast<std::size_t>(length) >= out.size()) return std::nullopt;
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::string readSmall(int dirFd, const char* name) {
    UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) return {};
    std::string out(4096, '\0');
    auto got = ::read(fd.get(), out.data(), out.size());
    out.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return out;
}

std::string baseName(std::string_view path) {
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// "npm-cli.js" is npm: scripts are named without their language's ending.
std::string withoutScriptEnding(std::string name) {
    for (std::string_view ending : {".js", ".cjs", ".mjs", ".py", ".sh", ".rb", ".pl"})
        if (name.size() > ending.size() && name.ends_with(ending))
            return name.substr(0, name.size() - ending.size());
    return name;
}

// The process's real owner from its status. The owner of its /proc folder is not always it: the
// folder goes with the effective owner, root for a set-user-ID program whoever runs it, and kernels
// before 4.11 gave the folder of a process that made itself undumpable (ssh-agent, gpg-agent,
// keyrings) to root as well.
uid_t ownerOf(int processFd, uid_t folderOwner) {
    auto status = readSmall(processFd, "status");
    auto at = status.find("\nUid:");
    if (at == std::string::npos) return folderOwner;
    at += 5;
    while (at < status.size() && (status[at] == '\t' || status[at] == ' '))
        ++at;
    uid_t uid = 0;
    auto [end, error] = std::from_chars(status.data() + at, status.data() + status.size(), uid);
    return error == std::errc() ? uid : folderOwner;
}

// Whether a process whose open files could not be listed leaves the in-use check blind.
// - Another person's process (or the home owner's, when someone else runs the clean) may work in
//   this home, and nothing about it can be seen: it counts.
// - The system's own services keep their lists private and do not work in a person's home: passed
//   over.
// - A process of our own that we still cannot list made itself undumpable, which is what key agents
//   and keyrings do to keep their memory from the user's other programs. Its name stays readable, so
//   the check that an item's app is running still sees it; its descriptors are sockets and its own
//   small files, not the caches and build folders a clean frees. Counting it would stop every clean
//   on an ordinary desktop, where such an agent always runs, so it is passed over.
bool hidesFromUs(uid_t processOwner, uid_t reader, uid_t homeOwner) {
    if (processOwner == reader) return false;
    return processOwner == homeOwner || (processOwner >= firstPersonUid && processOwner != nobodyUid);
}

bool isPid(std::string_view name) {
    return !name.empty() && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

void RunningApps::settle() {
    folded.clear();
    for (const auto& name : processNames)
        folded.push_back(lower(name));
    for (const auto& id : bundleIDs)
        folded.push_back(lower(id));
    std::ranges::sort(folded);
    folded.erase(std::unique(folded.begin(), folded.end()), folded.end());
    std::ranges::sort(openPaths);
    openPaths.erase(std::unique(openPaths.begin(), openPaths.end()), openPaths.end());
}

bool RunningApps::runs(std::string_view name) const {
    return std::ranges::binary_search(folded, lower(name));
}

std::optional<std::string> RunningApps::holdsInside(std::string_view path) const {
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    if (std::ranges::binary_search(openPaths, path, std::less<>{})) return std::string(path);
    // Everything below `path` sorts right after "path/"; "path-x" sorts before it and is not inside.
    std::string below = std::string(path) + "/";
    auto at = std::ranges::lower_bound(openPaths, below);
    if (at != openPaths.end() && at->starts_with(below)) return *at;
    return std::nullopt;
}

RunningApps RunningApps::read(const std::filesystem::path& procRoot, uid_t homeOwner) {
    RunningApps out;
    UniqueFd proc(::open(procRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!proc) {
        out.seesOpenFiles = false;
        return out;
    }
    const std::string self = std::to_string(::getpid());
    const uid_t us = ::geteuid();
    DirectoryReader reader(proc.get());
    DirectoryReader::Entry entry;
    while (reader.next(entry)) {
        // The system's first process never works in a person's folders; in a container it is often
        // one that hides its files even from root, which would otherwise stop every clean.
        if (!isPid(entry.name) || entry.name == self || entry.name == "1") continue;
        std::string pid(entry.name);
        UniqueFd process(::openat(proc.get(), pid.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!process) continue; // ended meanwhile
        struct stat owner {};
        if (::fstat(process.get(), &owner) != 0) continue;

        auto comm = readSmall(process.get(), "comm");
        while (!comm.empty() && (comm.back() == '\n' || comm.back() == '\0'))
            comm.pop_back();
        if (!comm.empty()) out.processNames.push_back(comm);
        auto cmdline = readSmall(process.get(), "cmdline");
        // argv[0] and argv[1]: an interpreter's script ("node /usr/bin/npm") names the tool.
        std::size_t start = 0;
        for (int arg = 0; arg < 2 && start < cmdline.size(); ++arg) {
            auto end = cmdline.find('\0', start);
            std::string_view word(cmdline.data() + start,
                                  (end == std::string::npos ? cmdline.size() : end) - start);
            if (!word.empty() && word.front() != '-')
                out.processNames.push_back(withoutScriptEnding(baseName(word)));
            if (end == std::string::npos) break;
            start = end + 1;
        }

        bool listed = true;
        for (const char* place : {"exe", "cwd"}) {
            if (auto target = linkAt(process.get(), place)) {
                if (std::string_view(place) == "exe") out.processNames.push_back(baseName(*target));
                out.openPaths.push_back(std::move(*target));
            } else if (errno == EACCES || errno == EPERM) {
                listed = false;
            }
        }
        UniqueFd fds(::openat(process.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!fds) {
            if (errno == EACCES || errno == EPERM) listed = false;
        } else {
            DirectoryReader fdReader(fds.get());
            DirectoryReader::Entry fd;
            while (fdReader.next(fd)) {
                std::string name(fd.name);
                if (auto target = linkAt(fds.get(), name.c_str()); target && target->starts_with('/'))
                    out.openPaths.push_back(std::move(*target));
            }
            if (fdReader.error() == EACCES || fdReader.error() == EPERM) listed = false;
        }
        if (!listed && hidesFromUs(ownerOf(process.get(), owner.st_uid), us, homeOwner))
            out.seesOpenFiles = false;
    }
    if (reader.error() != 0) out.seesOpenFiles = false;
    out.settle();
    return out;
}

} // namespace vantle
