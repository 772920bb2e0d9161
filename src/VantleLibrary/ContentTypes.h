// The one table that says what a file holds, from its name: extension -> content type (a MIME type,
// as the desktop's shared MIME database names it) -> library kind. The catalog and the search both
// read it, so a kind means the same files everywhere. The table is static; every function is
// thread-safe and returns views into static storage.
#pragma once
#include "VantleSpec/LibraryRecords.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vantle {

struct ContentType {
    std::string_view extension; // lower case, no dot
    std::string_view mime;
    std::optional<LibraryKind> kind;
};

// Every known extension, grouped by kind (images, videos, music, documents, archives, apps, then
// types that belong to no kind). An extension appears once.
std::span<const ContentType> contentTypes();

// The content type of anything we cannot name, and of a folder.
inline constexpr std::string_view unknownContentType = "application/octet-stream";
inline constexpr std::string_view folderContentType = "inode/directory";
// A folder that the desktop shows as one thing (an application bundle).
inline constexpr std::string_view appBundleContentType = "application/x-app-bundle";

// The extension of a file name, lower-cased, without the dot; empty for "README", ".bashrc" or "a.".
std::string lowerExtension(std::string_view fileName);

// The content type for a file name, by its extension; unknownContentType when the table lacks it.
// The answer is static, so facts can share it (SharedText::naming) without a copy.
const std::string_view& contentTypeForName(std::string_view fileName);
const std::string_view& contentTypeForExtension(std::string_view lowerExtension);

// The kind a content type belongs to: the table's row for it, else the broad family of the MIME
// type (image/, video/, audio/, text/). No kind for folders and the unknown type.
std::optional<LibraryKind> kindOfContentType(std::string_view mime);

// Names like "Photos.app" are bundles: one item, not a folder to look into.
bool isAppBundleName(std::string_view folderName);

} // namespace vantle
