// Reading and atomically replacing this program's own small files (settings, summaries, caches,
// stand-in records). A write goes to a fresh temporary file beside the target, is flushed to the disk
// (unless the caller allows it to be lost), and is renamed over it, so a reader sees the old file or
// the new one, never a torn one. The target's folder is opened without following a link at its last
// component, and the temporary file is never a link. Free functions; safe from several threads for
// different files.
#pragma once
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace vantle {

// The error is the system's description (systemErrorText).
std::expected<void, std::string> writeFileAtomically(const std::filesystem::path& file,
                                                     std::string_view bytes, mode_t mode = 0644);

// Makes the folder with its missing parents (mode for the ones it makes), then writes atomically.
std::expected<void, std::string> writeFileAtomicallyMakingFolder(const std::filesystem::path& file,
                                                                 std::string_view bytes, mode_t mode = 0644);

// Whether a write waits for the disk before it replaces the old file. Unsynced, a crash soon after
// may leave the old contents, the new, or (on some file systems) an empty file: for a cache that is
// read as empty when torn, not worth the wait (about 10 ms for 10 MB here).
enum class Durability { synced, mayBeLost };

// For a file too large to build in memory first: `produce` hands the bytes over in order, in pieces,
// through `put`, which answers false once a write has failed (the producer may stop then; the file is
// not replaced). Otherwise as writeFileAtomicallyMakingFolder.
using PutPiece = std::function<bool(std::string_view piece)>;
std::expected<void, std::string>
writeFileAtomicallyInPieces(const std::filesystem::path& file,
                            const std::function<void(const PutPiece& put)>& produce, mode_t mode = 0644,
                            Durability durability = Durability::synced);

// The whole file; the error is the errno of the failing call.
std::expected<std::string, int> readWholeFile(const std::filesystem::path& file);
std::expected<std::string, int> readWholeFd(int fd);

} // namespace vantle
