#include "VantleLibrary/DuplicateScanJson.h"

namespace vantle {

namespace {

template <class T> void field(JsonWriter& out, const char* name, const std::optional<T>& value) {
    if (!value) return;
    out.key(name);
    out.value(*value);
}

template <class T> void field(JsonWriter& out, const char* name, const T& value) {
    out.key(name);
    out.value(value);
}

void field(JsonWriter& out, const char* name, const std::vector<std::string>& texts) {
    out.key(name);
    out.beginArray();
    for (const auto& text : texts)
        out.value(text);
    out.endArray();
}

void writeJson(JsonWriter& out, const DuplicateGroup& group);
void writeJson(JsonWriter& out, const DuplicateSharing& sharing);

// A list of records, each written by its own writeJson.
template <class Range> void records(JsonWriter& out, const char* name, const Range& items) {
    out.key(name);
    out.beginArray();
    for (const auto& item : items)
        writeJson(out, item);
    out.endArray();
}

void writeJson(JsonWriter& out, const DuplicateGroup& group) {
    out.beginObject();
    field(out, "fingerprint", group.fingerprint);
    field(out, "size", group.size);
    records(out, "items", group.items);
    out.endObject();
}

void writeJson(JsonWriter& out, const DuplicateSharing& sharing) {
    out.beginObject();
    field(out, "fingerprint", sharing.fingerprint);
    out.key("hardLinks");
    out.beginArray();
    for (const auto& names : sharing.hardLinks) {
        out.beginArray();
        for (const auto& name : names)
            out.value(name);
        out.endArray();
    }
    out.endArray();
    field(out, "clones", sharing.clones);
    field(out, "freeable", sharing.freeable);
    out.endObject();
}

} // namespace

void writeJson(JsonWriter& out, const FileItem& item) {
    out.beginObject();
    field(out, "path", item.path);
    field(out, "name", item.name);
    field(out, "contentType", item.contentType);
    if (item.kind) field(out, "kind", nameOf(*item.kind));
    field(out, "size", item.size);
    field(out, "created", item.created);
    field(out, "modified", item.modified);
    field(out, "lastOpened", item.lastOpened);
    field(out, "added", item.added);
    field(out, "sources", item.sources);
    field(out, "isScreenshot", item.isScreenshot);
    field(out, "length", item.length);
    out.endObject();
}

void writeJson(JsonWriter& out, const DuplicateScan& scan) {
    out.beginObject();
    records(out, "groups", scan.groups);
    field(out, "isComplete", scan.isComplete);
    field(out, "at", scan.at);
    field(out, "candidates", scan.candidates);
    field(out, "bytesRead", scan.bytesRead);
    field(out, "seconds", scan.seconds);
    records(out, "sharing", scan.sharing);
    field(out, "note", scan.note);
    field(out, "missed", scan.missed);
    out.endObject();
}

} // namespace vantle
