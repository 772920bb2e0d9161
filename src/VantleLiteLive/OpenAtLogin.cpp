#include "VantleLiteLive/OpenAtLogin.h"

#include "Platform/AtomicFile.h"
#include "Platform/BeneathOpen.h"
#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"
#include "VantleSpec/Sentence.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {

// The entry's folder relative to the home, when it lies inside it.
std::optional<std::filesystem::path> relativeInHome(const std::filesystem::path& home,
                                                const std::filesystem::path& folder) {
    auto relative = folder.lexically_normal().lexically_relative(home.lexically_normal());
    if (relative.empty() || *relative.begin() == "..") return std::nullopt;
    return relative;
}

// An argument as the Exec key wants it: quoted when it holds anything but plain characters, with
// the four reserved characters escaped inside the quotes; "%" doubled, as field codes start with it.
std::string execArgument(const std::string& argument) {
    std::string out;
    bool plain = !argument.empty();
    for (char c : argument) {
        if (c == '%') out += '%';
        if (c == '"' || c == '`' || c == '$' || c == '\\') {
            out += '\\';
            plain = false;
        }
        if (c == ' ' || c == '\t' || c == '\n' || c == '\'' || c == '>' || c == '<' || c == '~' || c == '|' ||
            c == '&' || c == ';' || c == '*' || c == '?' || c == '#' || c == '(' || c == ')')
            plain = false;
        out += c;
    }
    if (plain) return out;
    // Inside quotes a backslash is itself escaped again when the key's string value is read.
    std::string quoted = "\"";
    for (char c : out) {
        quoted += c;
        if (c == '\\') quoted += '\\';
    }
    return quoted + "\"";
}

} // namespace

OpenAtLogin::OpenAtLogin(std::filesystem::path home, std::filesystem::path entry)
    : home_(std::move(home)), entry_(std::move(entry)) {}

bool OpenAtLogin::isOn() const {
    std::lock_guard lock(mutex_);
    struct stat st {};
    return ::lstat(entry_.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string OpenAtLogin::entryText(const std::vector<std::string>& command) {
    std::string exec;
    for (const auto& argument : command)
        exec += (exec.empty() ? "" : " ") + execArgument(argument);
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Vantle Lite\n"
           "Comment=Your files and your computer's health, in one calm place\n"
           "Exec=" +
           exec +
           "\n"
           "Icon=drive-harddisk\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

std::expected<void, OpenAtLogin::Failure> OpenAtLogin::turnOn(const std::vector<std::string>& command) {
    std::lock_guard lock(mutex_);
    auto fail = [](const std::string& reason) {
        return std::unexpected(Failure{fillIn(Failure::notWritten, {{"reason", reason}})});
    };
    auto folder = entry_.parent_path();
    if (auto relative = relativeInHome(home_, folder)) {
        // Made from the home one folder at a time, so a link planted on the way is never followed.
        UniqueFd homeFd(::open(home_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!homeFd) return fail(systemErrorText(errno));
        if (auto made = makeFoldersBeneath(homeFd.get(), *relative, 0700); !made)
            return fail(systemErrorText(made.error()));
        if (auto written = writeFileAtomically(entry_, entryText(command)); !written)
            return fail(written.error());
        return {};
    }
    if (auto written = writeFileAtomicallyMakingFolder(entry_, entryText(command)); !written)
        return fail(written.error());
    return {};
}

std::expected<void, OpenAtLogin::Failure> OpenAtLogin::turnOff() {
    std::lock_guard lock(mutex_);
    auto fail = [](int error) {
        return std::unexpected(Failure{fillIn(Failure::notRemoved, {{"reason", systemErrorText(error)}})});
    };
    auto folderPath = entry_.parent_path();
    std::expected<UniqueFd, int> folder = std::unexpected(0);
    if (auto relative = relativeInHome(home_, folderPath)) {
        UniqueFd homeFd(::open(home_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!homeFd) return fail(errno);
        folder = openBeneath(homeFd.get(), *relative, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } else {
        folder = openFolder(folderPath);
    }
    if (!folder) return folder.error() == ENOENT ? std::expected<void, Failure>{} : fail(folder.error());
    auto name = entry_.filename();
    struct stat st {};
    if (::fstatat(folder->get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? std::expected<void, Failure>{} : fail(errno);
    // Only the file this program writes is removed; anything else of that name is the user's.
    if (!S_ISREG(st.st_mode)) return fail(EEXIST);
    if (::unlinkat(folder->get(), name.c_str(), 0) != 0 && errno != ENOENT) return fail(errno);
    return {};
}

} // namespace vantle
