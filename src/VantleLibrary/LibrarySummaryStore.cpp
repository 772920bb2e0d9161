#include "VantleLibrary/LibrarySummaryStore.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "VantleSpec/Sentence.h"

namespace vantle {

KeptSummary::KeptSummary(std::optional<std::filesystem::path> file) : file_(std::move(file)) {
    if (!file_) return;
    // A missing, torn or foreign file is no summary: the Home waits for the first reading.
    if (auto text = readKeptFile(*file_))
        if (auto decoded = decodeJson<LibrarySummary>(*text)) summary_ = std::move(*decoded);
    loaded_ = true;
}

std::optional<LibrarySummary> KeptSummary::summary() const {
    std::lock_guard lock(mutex_);
    return summary_;
}

bool KeptSummary::loaded() const {
    std::lock_guard lock(mutex_);
    return loaded_;
}

std::expected<void, std::string> KeptSummary::keep(const LibrarySummary& summary) {
    std::lock_guard lock(mutex_);
    summary_ = summary;
    if (!file_) return {};
    auto written = writeFileAtomicallyMakingFolder(*file_, encodeJson(summary, 2) + "\n", 0600);
    if (!written) return std::unexpected(fillIn(keepFailedSentence, {{"reason", written.error()}}));
    return {};
}

} // namespace vantle
