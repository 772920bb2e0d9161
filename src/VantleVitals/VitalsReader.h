// What the health services read the machine through: a vitals reader gives one snapshot of the whole
// machine, an activity source one sample of its processes. The real readers use /proc and /sys; a
// sandbox's stand-in gives made-up readings. Each implementation may be called from several threads.
#pragma once
#include "VantleSpec/ActivityRecords.h"
#include "VantleSpec/VitalsRecords.h"

namespace vantle {

class VitalsReader {
  public:
    virtual ~VitalsReader() = default;
    // Rates and the processor's busy fraction are measured since the previous call; the first call
    // measures the processor since start-up and reports no rates yet.
    virtual VitalsSnapshot sample() = 0;
};

class ActivitySource {
  public:
    virtual ~ActivitySource() = default;
    // Processor shares and rates are measured since the previous call (zero on the first).
    virtual ActivitySample read(const ActivityNeeds& needs = {}) = 0;
};

} // namespace vantle
