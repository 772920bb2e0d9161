#include "VantleEgress/EgressLedger.h"

#include "Platform/KeptFile.h"
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"

#include <cerrno>
#include <fcntl.h>
#include <set>
#include <unistd.h>

namespace vantle {

EgressLedger::Failure EgressLedger::Failure::notOpened(const std::filesystem::path& path,
                                                       const std::string& reason) {
    return {Case::notOpened, fillIn(notOpenedSentence, {{"path", path.string()}, {"reason", reason}}),
            reason};
}

EgressLedger::Failure EgressLedger::Failure::notWritten(const std::string& reason) {
    return {Case::notWritten, fillIn(notWrittenSentence, {{"reason", reason}}), reason};
}

std::expected<std::shared_ptr<EgressLedger>, EgressLedger::Failure>
EgressLedger::open(const std::filesystem::path& file, Clock clock, WriteFn write) {
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) return std::unexpected(Failure::notOpened(file, systemErrorText(ec.value())));

    // Opened for reading too, so the lines read are those of the very file appended to. Non-blocking:
    // a FIFO in its place must not hang start-up, and readKeptFd refuses anything but a regular file.
    UniqueFd fd(::open(file.c_str(), O_RDWR | O_APPEND | O_CREAT | keptFileOpenFlags, 0600));
    if (!fd) return std::unexpected(Failure::notOpened(file, systemErrorText(errno)));

    auto contents = readKeptFd(fd.get(), file, keptFileLargestBytes);
    if (!contents) {
        auto& failed = contents.error();
        std::string reason = failed.what == KeptFileFailure::Case::unreadable ? systemErrorText(failed.error)
                             : failed.what == KeptFileFailure::Case::notAFile
                                 ? std::string("it is not a regular file")
                                 : std::string("it is too large to read");
        return std::unexpected(Failure::notOpened(file, reason));
    }
    if (!write) write = [](int to, const void* bytes, size_t count) { return ::write(to, bytes, count); };

    std::shared_ptr<EgressLedger> ledger(
        new EgressLedger(file, std::move(fd), std::move(clock), std::move(write)));
    const std::string& text = *contents;
    ledger->endsMidLine_ = !text.empty() && text.back() != '\n';
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string_view line(text.data() + start, end - start);
        start = end + 1;
        if (line.empty()) continue;
        if (auto entry = decodeLedgerLine(line))
            ledger->held_.push_back(std::move(*entry));
        else
            ++ledger->unreadableLines_;
    }

    // A first line with no later line of the same id is a request whose result never came back.
    std::set<std::string> answered;
    for (auto it = ledger->held_.rbegin(); it != ledger->held_.rend(); ++it) {
        bool leaving = it->failure == LedgerEntry::leavingNote;
        if (leaving && !answered.contains(it->id)) it->failure = std::string(LedgerEntry::neverRecorded);
        answered.insert(it->id);
    }
    return ledger;
}

std::expected<void, EgressLedger::Failure> EgressLedger::appendLocked(const LedgerEntry& entry) {
    std::string bytes;
    // A torn last line (the program ended mid-write) must never run into the new one.
    if (endsMidLine_) bytes += '\n';
    bytes += encodeJson(entry);
    bytes += '\n';
    ssize_t written = write_(file_.get(), bytes.data(), bytes.size());
    if (written != static_cast<ssize_t>(bytes.size())) {
        int err = written < 0 ? errno : EIO;
        // Part of the line reached the file: the file now ends mid-line, so the next line must
        // begin with a line feed of its own.
        if (written > 0) endsMidLine_ = true;
        unsaved_.push_back(entry);
        return std::unexpected(Failure::notWritten(systemErrorText(err)));
    }
    endsMidLine_ = false;
    held_.push_back(entry);
    std::erase_if(subscribers_, [&](const std::weak_ptr<LedgerStream>& weak) {
        auto stream = weak.lock();
        if (!stream) return true;
        stream->deliver(entry);
        return false;
    });
    return {};
}

std::expected<std::string, EgressLedger::Failure> EgressLedger::recordLeaving(const Leaving& request) {
    std::lock_guard lock(mutex_);
    LedgerEntry entry;
    entry.id = newUuid();
    entry.at = toMilliseconds(clock_());
    entry.purpose = request.purpose;
    entry.host = hostOfUrl(request.url);
    entry.url = request.url;
    entry.method = request.method;
    entry.query = request.query;
    entry.bytesSent = 0;
    entry.bytesReceived = 0;
    entry.run = request.run;
    entry.framework = request.framework;
    entry.failure = std::string(LedgerEntry::leavingNote);
    if (auto written = appendLocked(entry); !written) return std::unexpected(written.error());
    // The body is counted on the result line, once it has really been sent.
    bodyBytes_[entry.id] = request.bodyBytes;
    return entry.id;
}

std::expected<void, EgressLedger::Failure> EgressLedger::recordResult(const std::string& id,
                                                                      const Result& result) {
    std::lock_guard lock(mutex_);
    LedgerEntry entry;
    for (auto it = held_.rbegin(); it != held_.rend(); ++it)
        if (it->id == id) {
            entry = *it;
            break;
        }
    entry.id = id;
    entry.at = toMilliseconds(clock_());
    entry.status = result.status;
    entry.failure = result.failure;
    entry.bytesReceived = result.bytesReceived;
    if (auto body = bodyBytes_.find(id); body != bodyBytes_.end()) {
        entry.bytesSent = body->second;
        bodyBytes_.erase(body);
    }
    entry.redirectedFrom = result.redirectedFrom;
    return appendLocked(entry);
}

std::vector<LedgerEntry> EgressLedger::entries() const {
    std::lock_guard lock(mutex_);
    return held_;
}

std::shared_ptr<LedgerStream> EgressLedger::subscribe() {
    std::lock_guard lock(mutex_);
    auto stream = std::make_shared<LedgerStream>();
    subscribers_.push_back(stream);
    return stream;
}

int EgressLedger::unreadableLines() const {
    std::lock_guard lock(mutex_);
    return unreadableLines_;
}

} // namespace vantle
