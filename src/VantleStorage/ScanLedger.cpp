#include "VantleStorage/ScanLedger.h"

namespace vantle {

bool ScanLedger::firstHardLink(FileIdentity file) {
    std::lock_guard lock(hardLinksMutex_);
    return hardLinks_.insert(file).second;
}

bool ScanLedger::firstClone(std::uint64_t device, std::uint64_t physical) {
    std::lock_guard lock(cloneMutex_);
    return cloneFamilies_.insert({device, physical}).second;
}

} // namespace vantle
