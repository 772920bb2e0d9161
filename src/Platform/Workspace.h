// The desktop's workspace: hands a file, a folder or an address to the app this system opens it
// with, opens a file with a chosen app, shows an item in the file manager, and lists the apps the
// system offers for a type of file. Nothing here decides what may be opened; the opener does.
// Implementations may be called from several threads at once.
#pragma once
#include <expected>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class Workspace {
  public:
    virtual ~Workspace() = default;
    // The error is a short reason, ready to be put in a sentence.
    virtual std::expected<void, std::string> open(std::string_view target) = 0;
    virtual std::expected<void, std::string> openWith(const std::filesystem::path& file,
                                                      const std::filesystem::path& app) = 0;
    virtual std::expected<void, std::string> reveal(const std::filesystem::path& item) = 0;
    // The apps (their launcher entries) that say they open files of `mimeType`.
    virtual std::vector<std::filesystem::path> appsFor(std::string_view mimeType) const = 0;
};

// The freedesktop workspace: xdg-open (or gio open) started directly, with no shell between, gio
// launch for a chosen app, the file manager's ShowItems call on the session bus, and the MimeType
// lines of the .desktop entries in `applicationFolders`.
std::shared_ptr<Workspace> makeDesktopWorkspace(std::vector<std::filesystem::path> applicationFolders);

// Starts `arguments[0]` (looked up on PATH) with the arguments as given, no shell, and waits for it.
// The error is the system's reason, or the exit status.
std::expected<void, std::string> runProgram(const std::vector<std::string>& arguments);

} // namespace vantle
