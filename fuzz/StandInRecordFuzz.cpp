// The stand-in record files of a sandbox, each read as its own record and written back as it would be.
#include "FuzzInput.h"
#include "VantleLiteLive/StandInApps.h"
#include "VantleLiteLive/StandInMac.h"
#include "VantleLiteLive/StandInProcesses.h"
#include "VantleLiteLive/StandInRecord.h"

namespace {
template <class Record> void readAndWrite(std::string_view text) {
    if (auto record = vantle::decodeJson<Record>(text))
        (void)vantle::standInRecordText(vantle::Json(*record));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto text = vantle::fuzz::text(data, size);
    readAndWrite<vantle::StandInMac::Record>(text);
    readAndWrite<vantle::StandInApps::Record>(text);
    readAndWrite<vantle::StandInProcesses::Record>(text);
    return 0;
}
