#include "VantleLibrary/DiskWalk.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/EntryStatus.h"
#include "Platform/UniqueFd.h"
#include "VantleSpec/Sentence.h"

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <memory>

namespace vantle {

std::string groupedCount(std::int64_t count) {
    auto digits = std::to_string(count < 0 ? -count : count);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return count < 0 ? "-" + out : out;
}

std::optional<std::string> Reading::note() const {
    std::string text;
    switch (stop) {
    case Stop::finished:
        break;
    case Stop::entryLimit:
        text = fillIn(entryLimitSentence, {{"count", groupedCount(entries)}});
        break;
    case Stop::timeLimit:
        text = fillIn(timeLimitSentence, {{"seconds", std::to_string(std::lround(seconds))}});
        break;
    case Stop::cancelled:
        text = cancelledSentence;
        break;
    }
    if (!missedContents.empty()) {
        if (!text.empty()) text += ' ';
        text += missedContents.size() == 1
                    ? fillIn(missedOneSentence, {{"path", missedContents.front()}})
                    : fillIn(missedManySentence,
                             {{"count", groupedCount(static_cast<std::int64_t>(missedContents.size()))},
                              {"path", missedContents.front()}});
    }
    if (text.empty()) return std::nullopt;
    return text;
}

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::int64_t progressEvery = 4096;
constexpr std::int64_t clockEvery = 256;

struct Frame {
    UniqueFd fd;
    std::unique_ptr<DirectoryReader> reader; // reads fd; declared after it so it ends first
    std::string path;
    std::uint64_t device = 0;
    long bundle = -1;    // index of the app bundle whose contents these are, or -1
    bool isHome = false; // the home's top level, where "Library" is left out
};

class Walker {
  public:
    Walker(const DiskWalk& walk, const CancelFlag& cancel, const DiskWalk::ProgressFn& progress)
        : walk_(walk), cancel_(cancel), progress_(progress), began_(walk.now()) {}

    DiskWalk::Outcome run() {
        const auto& home = walk_.scope.home;
        walkRoot(home, Root::home);
        if (stop_ == Reading::Stop::finished) walkRoot(home / "Library" / "Mobile Documents", Root::cloud);
        auto homePrefix = home.string() + "/";
        for (const auto& apps : walk_.scope.appFolders) {
            // An application folder inside the home (a sandbox's Applications) has been read already.
            if (apps == home || apps.string().starts_with(homePrefix)) continue;
            if (stop_ == Reading::Stop::finished) walkRoot(apps, Root::apps);
        }

        out_.reading.stop = stop_;
        out_.reading.entries = entries_;
        out_.reading.seconds = std::chrono::duration<double>(walk_.now() - began_).count();
        out_.reading.isComplete = stop_ == Reading::Stop::finished && out_.reading.missedContents.empty();
        out_.snapshot.isWhole = stop_ == Reading::Stop::finished;
        out_.snapshot.at = began_;
        return std::move(out_);
    }

  private:
    void missed(const std::string& path) { out_.reading.missedContents.push_back(path); }

    enum class Root {
        home,
        cloud, // absent on most machines
        apps,  // absent on some machines, and shared with the system: only apps are taken from it
    };

    void walkRoot(const std::filesystem::path& root, Root kind) {
        auto fd = openFolder(root);
        if (!fd) {
            bool absent = fd.error() == ENOENT || fd.error() == ENOTDIR;
            if (!(kind != Root::home && absent)) missed(root.string());
            return;
        }
        appsOnly_ = kind == Root::apps;
        auto status = statusOf(fd->get(), "");
        if (!status) {
            missed(root.string());
            return;
        }
        std::vector<Frame> stack;
        push(stack, std::move(*fd), root.string(), status->device, -1, kind == Root::home);
        descend(stack);
    }

    void push(std::vector<Frame>& stack, UniqueFd fd, std::string path, std::uint64_t device, long bundle,
              bool isHome) {
        Frame frame;
        frame.reader = std::make_unique<DirectoryReader>(fd.get(), 32 * 1024);
        frame.fd = std::move(fd);
        frame.path = std::move(path);
        frame.device = device;
        frame.bundle = bundle;
        frame.isHome = isHome;
        stack.push_back(std::move(frame));
    }

    bool pastLimits() {
        if (cancel_.isCancelled())
            stop_ = Reading::Stop::cancelled;
        else if (entries_ >= walk_.entryLimit)
            stop_ = Reading::Stop::entryLimit;
        else if (entries_ % clockEvery == 0 && walk_.now() >= walk_.deadline)
            stop_ = Reading::Stop::timeLimit;
        return stop_ != Reading::Stop::finished;
    }

    void descend(std::vector<Frame>& stack) {
        DirectoryReader::Entry entry;
        while (!stack.empty()) {
            Frame& frame = stack.back();
            if (!frame.reader->next(entry)) {
                if (frame.reader->error() != 0) missed(frame.path);
                stack.pop_back();
                continue;
            }
            if (entry.name.front() == '.') continue;
            if (frame.isHome && entry.name == "Library") continue;
            if (pastLimits()) return;
            ++entries_;
            if (progress_ && entries_ % progressEvery == 0) progress_({entries_, files_, frame.path});

            std::string name(entry.name);
            auto status = statusOf(frame.fd.get(), name.c_str());
            // Gone since the listing, or unreadable: nothing to record.
            if (!status) continue;
            bool isFolder = status->type == EntryStatus::Type::folder;
            if (!isFolder && status->type != EntryStatus::Type::file) continue; // links are never followed

            std::string path = frame.path;
            if (path.empty() || path.back() != '/') path += '/';
            path += name;

            if (frame.bundle >= 0) {
                auto& bundle = out_.snapshot.facts[static_cast<size_t>(frame.bundle)];
                if (!isFolder) {
                    bundle.size += static_cast<std::int64_t>(status->sizeBytes);
                    bundle.onDisk += static_cast<std::int64_t>(status->allocatedBytes);
                } else if (status->device == frame.device) {
                    openChild(stack, frame.fd.get(), name, std::move(path), frame.device, frame.bundle);
                }
                continue;
            }

            auto facts = factsOf(path, name, *status, frame.fd.get());
            bool isPackage = facts.isPackage;
            bool keep = !appsOnly_ || facts.kind() == LibraryKind::apps;
            if (keep) out_.snapshot.facts.push_back(std::move(facts));
            if (!isFolder) {
                if (keep) ++files_;
                continue;
            }
            if (status->device != frame.device) continue;
            long bundle = isPackage && keep ? static_cast<long>(out_.snapshot.facts.size() - 1) : -1;
            // `frame` may move when the stack grows: take what is needed from it first.
            openChild(stack, frame.fd.get(), name, std::move(path), frame.device, bundle);
        }
    }

    void openChild(std::vector<Frame>& stack, int parentFd, const std::string& name, std::string path,
                   std::uint64_t device, long bundle) {
        int fd = ::openat(parentFd, name.c_str(), folderFlags);
        if (fd < 0) {
            if (errno != ENOENT) missed(path);
            return;
        }
        push(stack, UniqueFd(fd), std::move(path), device, bundle, false);
    }

    const DiskWalk& walk_;
    const CancelFlag& cancel_;
    const DiskWalk::ProgressFn& progress_;
    TimePoint began_;
    DiskWalk::Outcome out_;
    Reading::Stop stop_ = Reading::Stop::finished;
    bool appsOnly_ = false;
    std::int64_t entries_ = 0;
    std::int64_t files_ = 0;
};

} // namespace

DiskWalk::Outcome DiskWalk::run(const CancelFlag& cancel, const ProgressFn& progress) const {
    return Walker(*this, cancel, progress).run();
}

} // namespace vantle
