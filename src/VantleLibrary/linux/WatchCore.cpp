#include "VantleLibrary/WatchCore.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/EntryStatus.h"
#include "Platform/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <dirent.h>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unordered_map>

namespace vantle {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::uint32_t listChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t folderMask = listChanges | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
// In the home's Library only the cloud documents folder matters, and only its coming and going.
constexpr std::uint32_t libraryMask = listChanges | IN_ONLYDIR | IN_DONT_FOLLOW;
constexpr std::string_view cloudFolder = "Mobile Documents";

int millisecondsUntil(SteadyTime at, SteadyTime now) {
    if (at <= now) return 0;
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(at - now).count());
}

bool isFolder(int dirFd, const DirectoryReader::Entry& entry) {
    if (entry.type == DT_DIR) return true;
    if (entry.type != DT_UNKNOWN) return false;
    auto status = statusOf(dirFd, std::string(entry.name).c_str());
    return status && status->type == EntryStatus::Type::folder;
}

} // namespace

std::vector<std::string> WatchCore::topLevelPaths(const std::filesystem::path& home) {
    std::vector<std::string> paths;
    auto fd = openFolder(home);
    if (!fd) return paths;
    DirectoryReader reader(fd->get());
    DirectoryReader::Entry entry;
    while (reader.next(entry)) {
        if (entry.name.front() == '.' || entry.name == "Library") continue;
        paths.push_back((home / entry.name).string());
    }
    auto cloud = home / "Library" / cloudFolder;
    if (auto cloudFd = openFolder(cloud)) paths.push_back(cloud.string());
    std::ranges::sort(paths);
    return paths;
}

class WatchCore::Loop {
  public:
    explicit Loop(WatchCore& core) : core_(core), settings_(core.settings_), timing_(core.settings_.timing) {}

    bool open() {
        wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wake_ || !reopen()) return false;
        publish();
        return true;
    }

    void wake() {
        std::uint64_t one = 1;
        [[maybe_unused]] auto n = ::write(wake_.get(), &one, sizeof one);
    }

    void run() {
        for (;;) {
            auto now = std::chrono::steady_clock::now();
            bool readEvents = now >= readAgainAt_;
            int timeout = -1;
            if (checkAt_) timeout = millisecondsUntil(*checkAt_, now);
            if (!readEvents) {
                int untilRead = millisecondsUntil(readAgainAt_, now);
                timeout = timeout < 0 ? untilRead : std::min(timeout, untilRead);
            }
            pollfd fds[2] = {{wake_.get(), POLLIN, 0},
                             {inotify_.get(), static_cast<short>(readEvents ? POLLIN : 0), 0}};
            int ready = ::poll(fds, 2, timeout);
            if (ready < 0 && errno != EINTR) return;
            if (fds[0].revents) return;
            if (ready > 0 && (fds[1].revents & POLLIN)) {
                readAll();
                readAgainAt_ =
                    std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(settings_.latency);
            }
            if (checkAt_ && std::chrono::steady_clock::now() >= *checkAt_) {
                checkAt_.reset();
                apply(timing_.check(settings_.now()));
            }
            publish();
        }
    }

  private:
    // A new event queue over the current list: what the old one held is dropped, which is why
    // every caller has just counted a change.
    bool reopen() {
        inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!inotify_) return false;
        folders_.clear();
        homeWd_ = libraryWd_ = -1;
        watchLimitReached_ = false;
        const auto& root = settings_.root;
        if (settings_.mode == Mode::oneFolder) {
            add(root.string(), folderMask);
        } else {
            homeWd_ = add(root.string(), folderMask);
            libraryWd_ = ::inotify_add_watch(inotify_.get(), (root / "Library").c_str(), libraryMask);
            top_ = topLevelPaths(root);
            for (const auto& path : top_)
                addTree(path);
        }
        return true;
    }

    int add(const std::string& path, std::uint32_t mask) {
        int wd = ::inotify_add_watch(inotify_.get(), path.c_str(), mask);
        if (wd < 0) {
            if (errno == ENOSPC) watchLimitReached_ = true;
            return -1;
        }
        folders_[wd] = path; // a folder moved within the tree comes back with its old watch: renamed here
        return wd;
    }

    // Watches a folder and every folder below it (names beginning with "." left out), including
    // those made before the watch was in place.
    void addTree(const std::string& top) {
        std::vector<std::string> pending{top};
        while (!pending.empty() && !watchLimitReached_) {
            auto path = std::move(pending.back());
            pending.pop_back();
            if (add(path, folderMask) < 0) continue; // a file, gone, or unreadable
            auto fd = openFolder(path);
            if (!fd) continue;
            DirectoryReader reader(fd->get());
            DirectoryReader::Entry entry;
            while (reader.next(entry))
                if (entry.name.front() != '.' && isFolder(fd->get(), entry))
                    pending.push_back(path + "/" + std::string(entry.name));
        }
    }

    void readAll() {
        alignas(inotify_event) char buffer[64 * 1024];
        bool topMayHaveChanged = false, overflowed = false;
        for (;;) {
            ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
            if (n <= 0) break;
            for (char* at = buffer; at < buffer + n;) {
                auto* event = reinterpret_cast<inotify_event*>(at);
                at += sizeof(inotify_event) + event->len;
                handle(*event, topMayHaveChanged, overflowed);
            }
        }
        if (settings_.mode == Mode::homeTree && !overflowed && topMayHaveChanged)
            overflowed = topLevelPaths(settings_.root) != top_;
        if (overflowed) reopen();
    }

    void handle(const inotify_event& event, bool& topMayHaveChanged, bool& reopenNeeded) {
        if (event.mask & IN_Q_OVERFLOW) {
            // Events were lost, among them perhaps new folders: count a change and watch afresh.
            ++overflows_;
            changed(false);
            reopenNeeded = true;
            return;
        }
        if (event.mask & IN_IGNORED) {
            folders_.erase(event.wd);
            return;
        }
        std::string_view name = event.len ? std::string_view(event.name) : std::string_view{};
        bool isDir = event.mask & IN_ISDIR;
        if (event.wd == libraryWd_) {
            // The cloud documents folder coming or going changes what the library holds.
            if (name == cloudFolder) {
                topMayHaveChanged = true;
                changed(false);
            }
            return;
        }
        if (!name.empty() && name.front() == '.') return;
        if (event.wd == homeWd_) {
            if (name == "Library") {
                if (event.mask & listChanges) topMayHaveChanged = true;
                return;
            }
            if (event.mask & listChanges) topMayHaveChanged = true;
            if (!name.empty() || (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF))) changed(!isDir);
            return;
        }
        auto folder = folders_.find(event.wd);
        if (folder == folders_.end()) return;
        // The folder itself going is told by its parent, except for a watched folder with no watched parent.
        if (name.empty()) {
            if (settings_.mode == Mode::oneFolder && (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)))
                changed(false);
            return;
        }
        if (settings_.mode == Mode::homeTree && isDir && (event.mask & (IN_CREATE | IN_MOVED_TO)))
            addTree(folder->second + "/" + std::string(name));
        changed(!isDir);
    }

    void changed(bool isFile) {
        ++heard_;
        if (isFile) ++filesChanged_;
        ++sinceSignal_;
        apply(timing_.changed(settings_.now()));
    }

    void apply(const ChangeTiming::Step& step) {
        if (step.nextCheck)
            checkAt_ = std::chrono::steady_clock::now() +
                       std::chrono::duration_cast<std::chrono::steady_clock::duration>(*step.nextCheck);
        if (step.signal) {
            ++signals_;
            publish();
            core_.tell(ChangeSignal{settings_.now(), std::exchange(sinceSignal_, 0)});
        }
    }

    void publish() {
        std::lock_guard lock(core_.mutex_);
        auto& s = core_.status_;
        s.heard = heard_;
        s.filesChanged = filesChanged_;
        s.signals = signals_;
        s.overflows = overflows_;
        s.paths = top_;
        s.folders = folders_.size();
        s.watchLimitReached = watchLimitReached_;
    }

    WatchCore& core_;
    const Settings& settings_;
    ChangeTiming timing_;
    UniqueFd inotify_;
    UniqueFd wake_;
    std::unordered_map<int, std::string> folders_;
    int homeWd_ = -1;
    int libraryWd_ = -1;
    std::vector<std::string> top_;
    bool watchLimitReached_ = false;
    std::optional<SteadyTime> checkAt_;
    SteadyTime readAgainAt_{};
    std::int64_t heard_ = 0, filesChanged_ = 0, signals_ = 0, overflows_ = 0, sinceSignal_ = 0;
};

WatchCore::WatchCore(Settings settings) : settings_(std::move(settings)) {}

WatchCore::~WatchCore() {
    stop();
}

bool WatchCore::start() {
    std::lock_guard lifecycle(lifecycle_);
    if (loop_) return true;
    auto loop = std::make_unique<Loop>(*this);
    if (!loop->open()) return false;
    {
        std::lock_guard lock(mutex_);
        status_.running = true;
    }
    loop_ = std::move(loop);
    thread_ = std::thread([loop = loop_.get()] { loop->run(); });
    return true;
}

void WatchCore::stop() {
    std::lock_guard lifecycle(lifecycle_);
    if (!loop_) return;
    loop_->wake();
    if (thread_.joinable()) thread_.join();
    loop_.reset();
    std::vector<std::weak_ptr<ChangeStream>> listeners;
    {
        std::lock_guard lock(mutex_);
        status_.running = false;
        listeners.swap(listeners_);
    }
    for (auto& weak : listeners)
        if (auto stream = weak.lock()) stream->end();
}

std::shared_ptr<ChangeStream> WatchCore::subscribe() {
    auto stream = std::make_shared<ChangeStream>();
    std::lock_guard lock(mutex_);
    listeners_.push_back(stream);
    return stream;
}

WatchCore::Status WatchCore::status() const {
    std::lock_guard lock(mutex_);
    return status_;
}

void WatchCore::tell(const ChangeSignal& signal) {
    if (settings_.onSignal) settings_.onSignal(signal);
    std::vector<std::shared_ptr<ChangeStream>> streams;
    {
        std::lock_guard lock(mutex_);
        std::erase_if(listeners_, [](const auto& weak) { return weak.expired(); });
        for (auto& weak : listeners_)
            if (auto stream = weak.lock()) streams.push_back(std::move(stream));
    }
    for (auto& stream : streams)
        stream->push(signal);
}

} // namespace vantle
