#include "VantleVitals/CheckupService.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"
#include "VantleVitals/CheckupSections.h"

#include <algorithm>
#include <cerrno>

namespace vantle {

CheckupService::CheckupService(std::shared_ptr<CheckupFactsSource> source, std::filesystem::path file,
                               Clock clock, size_t pointsKept)
    : source_(std::move(source)), file_(std::move(file)), clock_(std::move(clock)),
      pointsKept_(std::max<size_t>(1, pointsKept)) {
    auto text = readKeptFile(file_, largestFile);
    if (!text) {
        if (text.error().what != KeptFileFailure::Case::missing)
            problem_ =
                fillIn(unreadableSentence, {{"file", file_.string()}, {"reason", text.error().sentence}});
        return;
    }
    auto decoded = decodeJson<KeptCheckups>(*text);
    if (!decoded) {
        problem_ = fillIn(unreadableSentence, {{"file", file_.string()}, {"reason", decoded.error()}});
        return;
    }
    kept_ = std::move(*decoded);
}

MacCheckup CheckupService::run() {
    // Reading the machine takes the longest and touches nothing of ours, so it runs unlocked.
    auto facts = source_->read();
    std::lock_guard lock(mutex_);
    auto now = toMilliseconds(clock_());
    auto checkup = buildCheckup(facts, now, {source_->standInSource()});
    kept_.last = checkup;
    kept_.points.push_back({now, checkup.score.value, checkup.score.parts});
    if (kept_.points.size() > pointsKept_)
        kept_.points.erase(kept_.points.begin(),
                           kept_.points.begin() + std::ptrdiff_t(kept_.points.size() - pointsKept_));
    if (auto written = writeFileAtomicallyMakingFolder(file_, encodeJson(kept_, 1) + "\n", 0600); !written)
        problem_ = fillIn(unwritableSentence, {{"reason", written.error()}});
    else
        problem_.reset();
    return checkup;
}

KeptCheckups CheckupService::kept() const {
    std::lock_guard lock(mutex_);
    return kept_;
}

std::optional<std::string> CheckupService::problem() const {
    std::lock_guard lock(mutex_);
    return problem_;
}

} // namespace vantle
