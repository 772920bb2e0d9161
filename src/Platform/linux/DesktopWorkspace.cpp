#include "Platform/SharedLibrary.h"
#include "Platform/SystemError.h"
#include "Platform/Workspace.h"

#include <cerrno>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

extern char** environ;

namespace vantle {

namespace fs = std::filesystem;

namespace {

// A file address for the file manager: every byte outside the unreserved set is percent-encoded.
std::string fileAddress(const fs::path& item) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out = "file://";
    for (unsigned char c : item.string()) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// The few sd-bus functions revealing an item calls, bound the first time one is revealed: most
// commands never reveal anything, and libsystemd with the libraries it pulls in was a good part of
// every start.
struct BusCalls {
    decltype(&::sd_bus_open_user) open_user;
    decltype(&::sd_bus_flush_close_unref) flush_close_unref;
    decltype(&::sd_bus_call_method) call_method;
    decltype(&::sd_bus_error_free) error_free;
};

std::expected<const BusCalls*, std::string> busCalls() {
    static const auto loaded =
        SharedLibrary::table<BusCalls>(VANTLE_SYSTEMD_SONAME, [](const SharedLibrary& lib, BusCalls& c) {
            return lib.bind(c.open_user, "sd_bus_open_user") &&
                   lib.bind(c.flush_close_unref, "sd_bus_flush_close_unref") &&
                   lib.bind(c.call_method, "sd_bus_call_method") &&
                   lib.bind(c.error_free, "sd_bus_error_free");
        });
    return SharedLibrary::kept(loaded);
}

class DesktopWorkspace final : public Workspace {
  public:
    explicit DesktopWorkspace(std::vector<fs::path> folders) : folders_(std::move(folders)) {}

    std::expected<void, std::string> open(std::string_view target) override {
        auto opened = runProgram({"xdg-open", std::string(target)});
        if (opened || opened.error() != systemErrorText(ENOENT)) return opened;
        return runProgram({"gio", "open", std::string(target)});
    }

    std::expected<void, std::string> openWith(const fs::path& file, const fs::path& app) override {
        return runProgram({"gio", "launch", app.string(), file.string()});
    }

    // The session bus is used through sd-bus (libsystemd): one method call with a string array,
    // with the bus's own error text when no file manager answers.
    std::expected<void, std::string> reveal(const fs::path& item) override {
        auto calls = busCalls();
        if (!calls) return std::unexpected(calls.error());
        const auto& sd = **calls;
        sd_bus* raw = nullptr;
        if (int r = sd.open_user(&raw); r < 0) return std::unexpected(systemErrorText(-r));
        auto closeBus = [&sd](sd_bus* bus) { sd.flush_close_unref(bus); };
        std::unique_ptr<sd_bus, decltype(closeBus)> bus(raw, closeBus);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        std::string address = fileAddress(item);
        int r = sd.call_method(bus.get(), "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                               "org.freedesktop.FileManager1", "ShowItems", &error, nullptr, "ass", 1,
                               address.c_str(), "");
        if (r < 0) {
            std::string reason = error.message ? error.message : systemErrorText(-r);
            sd.error_free(&error);
            return std::unexpected(reason);
        }
        return {};
    }

    std::vector<fs::path> appsFor(std::string_view mimeType) const override {
        std::vector<fs::path> apps;
        for (const auto& folder : folders_) {
            std::error_code ec;
            for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
                if (it->path().extension() != ".desktop") continue;
                std::ifstream entry(it->path());
                std::string line;
                while (std::getline(entry, line)) {
                    if (!line.starts_with("MimeType=")) continue;
                    std::string_view types(line);
                    types.remove_prefix(9);
                    while (!types.empty()) {
                        auto end = types.find(';');
                        if (types.substr(0, end) == mimeType) {
                            apps.push_back(it->path());
                            break;
                        }
                        if (end == std::string_view::npos) break;
                        types.remove_prefix(end + 1);
                    }
                    break;
                }
            }
        }
        return apps;
    }

  private:
    std::vector<fs::path> folders_;
};

} // namespace

std::expected<void, std::string> runProgram(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& a : arguments)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    if (int err = ::posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ); err != 0)
        return std::unexpected(systemErrorText(err));
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return std::unexpected(systemErrorText(errno));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
    return std::unexpected(arguments[0] + " ended with status " +
                           std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
}

std::shared_ptr<Workspace> makeDesktopWorkspace(std::vector<fs::path> applicationFolders) {
    return std::make_shared<DesktopWorkspace>(std::move(applicationFolders));
}

} // namespace vantle
