// What this copy of the program does with what a storage scan finds: delete class A categories,
// set class B items aside, put held items back. Where an ability is off, the report says so in its
// own words. A plain value.
#pragma once
#include "VantleSpec/Json.h"

namespace vantle {

struct StorageAbilities {
    bool frees = false;
    bool setsAside = false;
    bool putsBack = false;
    bool operator==(const StorageAbilities&) const = default;
};
VANTLE_RECORD_JSON(StorageAbilities, frees, setsAside, putsBack)

} // namespace vantle
