// The network ledger: every request this program sends is written here, as one JSON line, before it
// leaves, and its result after it returns. Lines are only ever appended to egress-ledger.jsonl.
// An actor: every operation takes the ledger's mutex, so writes are serialized and subscribers are
// fed in write order. Share it by shared_ptr; any thread may call it.
#pragma once
#include "Platform/UniqueFd.h"
#include "VantleEgress/EgressLedgerReading.h"
#include "VantleSpec/Time.h"

#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantle {

class EgressLedger final : public EgressLedgerReading {
  public:
    struct Failure {
        enum class Case { notOpened, notWritten };
        Case what;
        std::string sentence;

        static constexpr std::string_view notOpenedSentence =
            "The network ledger at {path} could not be opened: {reason}";
        static constexpr std::string_view notWrittenSentence =
            "The network ledger could not be written: {reason}";
        static Failure notOpened(const std::filesystem::path& path, const std::string& reason);
        static Failure notWritten(const std::string& reason);
        // The bare reason, as the start-up note and callers' own sentences quote it.
        std::string reason;
    };

    // What a caller says about a request that is about to leave.
    struct Leaving {
        LedgerEntry::Purpose purpose = LedgerEntry::Purpose::page;
        std::string url;
        std::string method = "GET";
        std::optional<std::string> query;
        std::int64_t bodyBytes = 0;
        std::optional<std::string> run;
        std::optional<std::string> framework;
    };

    struct Result {
        std::optional<int> status;
        std::optional<std::string> failure;
        std::int64_t bytesReceived = 0;
        std::optional<std::string> redirectedFrom;
    };

    // How a line reaches the file: ::write unless a test wraps it to inject a short or failed write.
    using WriteFn = std::function<ssize_t(int fd, const void* bytes, size_t count)>;

    static std::expected<std::shared_ptr<EgressLedger>, Failure>
    open(const std::filesystem::path& file, Clock clock = systemClock(), WriteFn write = {});

    // Writes the request's first line and gives its id. When the line cannot be written the request
    // must not be sent.
    std::expected<std::string, Failure> recordLeaving(const Leaving& request);
    // Writes the result line for a request recorded by recordLeaving.
    std::expected<void, Failure> recordResult(const std::string& id, const Result& result);

    std::vector<LedgerEntry> entries() const override;
    std::shared_ptr<LedgerStream> subscribe() override;

    int unreadableLines() const;
    const std::filesystem::path& fileURL() const { return fileURL_; }

  private:
    EgressLedger(std::filesystem::path file, UniqueFd fd, Clock clock, WriteFn write)
        : fileURL_(std::move(file)), file_(std::move(fd)), clock_(std::move(clock)),
          write_(std::move(write)) {}
    std::expected<void, Failure> appendLocked(const LedgerEntry& entry);

    std::filesystem::path fileURL_;
    int unreadableLines_ = 0;
    std::vector<LedgerEntry> held_;
    std::vector<LedgerEntry> unsaved_;
    bool endsMidLine_ = false;
    UniqueFd file_;
    std::vector<std::weak_ptr<LedgerStream>> subscribers_;
    std::map<std::string, std::int64_t> bodyBytes_;
    Clock clock_;
    WriteFn write_;
    mutable std::mutex mutex_;
};

} // namespace vantle
