#include "VantleLibrary/SharedText.h"

#include <mutex>
#include <string>
#include <unordered_map>

namespace vantle {

namespace {
struct KeptTexts {
    std::mutex mutex;
    // Nodes never move, so a view stored as a value stays where it is; it views its own key.
    std::unordered_map<std::string, std::string_view> texts;
};
KeptTexts& keptTexts() {
    // Never destroyed: facts made by threads still running at exit may name it.
    static auto* k = new KeptTexts;
    return *k;
}
} // namespace

SharedText::SharedText(std::string_view text) {
    if (text.empty()) return;
    auto& k = keptTexts();
    std::lock_guard lock(k.mutex);
    auto it = k.texts.find(std::string(text));
    if (it == k.texts.end()) {
        it = k.texts.emplace(std::string(text), std::string_view()).first;
        it->second = it->first;
    }
    text_ = &it->second;
}

} // namespace vantle
