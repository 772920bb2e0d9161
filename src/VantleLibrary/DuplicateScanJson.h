// A duplicate scan written as JSON while it is walked, the same text dumpEscaped(Json(scan), indent)
// gives: a scan of ten thousand groups is printed without first being copied into a tree.
// Free functions; safe from several threads on different writers.
#pragma once
#include "VantleLibrary/Duplicates.h"
#include "VantleSpec/JsonWriter.h"

namespace vantle {

void writeJson(JsonWriter& out, const FileItem& item);
void writeJson(JsonWriter& out, const DuplicateScan& scan);

} // namespace vantle
