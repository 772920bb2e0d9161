#include "VantleVitals/ProcFs.h"

#include "Platform/AtomicFile.h"
#include "Platform/UniqueFd.h"

#include <charconv>
#include <fcntl.h>

namespace vantle::procfs {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isSpace(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back()))
        s.remove_suffix(1);
    return s;
}

// Splits off the next whitespace-separated word.
std::string_view nextWord(std::string_view& s) {
    while (!s.empty() && isSpace(s.front()))
        s.remove_prefix(1);
    size_t end = 0;
    while (end < s.size() && !isSpace(s[end]))
        ++end;
    auto word = s.substr(0, end);
    s.remove_prefix(end);
    return word;
}

template <class T> std::optional<T> number(std::string_view word) {
    T value{};
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc{} || end != word.data() + word.size()) return std::nullopt;
    return value;
}

// Calls `line` for each line of `text`.
template <class F> void forEachLine(std::string_view text, F&& line) {
    while (!text.empty()) {
        auto end = text.find('\n');
        line(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
}

} // namespace

std::optional<std::string> readText(const std::filesystem::path& file) {
    auto text = readWholeFile(file);
    if (!text) return std::nullopt;
    return std::move(*text);
}

std::optional<std::string> readTextAt(int dirFd, const char* name) {
    UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) return std::nullopt;
    auto text = readWholeFd(fd.get());
    if (!text) return std::nullopt;
    return std::move(*text);
}

std::optional<std::string> readLine(const std::filesystem::path& file) {
    auto text = readText(file);
    if (!text) return std::nullopt;
    auto line = trim(std::string_view(*text).substr(0, text->find('\n')));
    if (line.empty()) return std::nullopt;
    return std::string(line);
}

std::optional<std::int64_t> readNumber(const std::filesystem::path& file) {
    auto text = readText(file);
    if (!text) return std::nullopt;
    std::string_view rest = *text;
    return number<std::int64_t>(nextWord(rest));
}

double busyBetween(const CpuTimes& before, const CpuTimes& after) {
    if (after.total() <= before.total() || after.busy() < before.busy()) return 0;
    double busy = double(after.busy() - before.busy()) / double(after.total() - before.total());
    return std::min(1.0, busy);
}

Stat parseStat(std::string_view text) {
    Stat out;
    forEachLine(text, [&](std::string_view line) {
        auto key = nextWord(line);
        if (key == "btime") {
            out.bootTime = number<std::int64_t>(nextWord(line));
            return;
        }
        if (!key.starts_with("cpu")) return;
        // user nice system idle iowait irq softirq steal (guest time is already inside user).
        std::uint64_t f[8] = {};
        int read = 0;
        for (; read < 8; ++read) {
            auto word = nextWord(line);
            if (word.empty()) break;
            auto value = number<std::uint64_t>(word);
            if (!value) return;
            f[read] = *value;
        }
        if (read < 4) return;
        CpuTimes t{f[0] + f[1], f[2] + f[5] + f[6], f[3] + f[4], f[7]};
        if (key == "cpu") {
            out.all = t;
        } else if (auto core = number<int>(key.substr(3))) {
            out.cores.emplace_back(*core, t);
        }
    });
    return out;
}

std::map<std::string, std::uint64_t, std::less<>> parseMeminfo(std::string_view text) {
    std::map<std::string, std::uint64_t, std::less<>> out;
    forEachLine(text, [&](std::string_view line) {
        auto colon = line.find(':');
        if (colon == std::string_view::npos) return;
        std::string_view rest = line.substr(colon + 1);
        auto value = number<std::uint64_t>(nextWord(rest));
        if (!value) return;
        auto unit = nextWord(rest);
        out[std::string(trim(line.substr(0, colon)))] = unit == "kB" ? *value * 1024 : *value;
    });
    return out;
}

std::optional<Pressure> parsePressure(std::string_view text) {
    Pressure out;
    bool some = false;
    forEachLine(text, [&](std::string_view line) {
        auto kind = nextWord(line);
        for (auto word = nextWord(line); !word.empty(); word = nextWord(line)) {
            if (!word.starts_with("avg10=")) continue;
            auto value = number<double>(word.substr(6));
            if (!value) return;
            if (kind == "some") {
                out.someAvg10 = *value;
                some = true;
            } else if (kind == "full") {
                out.fullAvg10 = *value;
            }
        }
    });
    if (!some) return std::nullopt;
    return out;
}

std::vector<int> parseCpuList(std::string_view text) {
    std::vector<int> out;
    text = trim(text);
    while (!text.empty()) {
        auto comma = text.find(',');
        auto part = trim(text.substr(0, comma));
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        auto dash = part.find('-');
        auto first = number<int>(part.substr(0, dash));
        auto last = dash == std::string_view::npos ? first : number<int>(part.substr(dash + 1));
        if (!first || !last || *last < *first || *last - *first > 65536) continue;
        for (int core = *first; core <= *last; ++core)
            out.push_back(core);
    }
    return out;
}

std::vector<InterfaceCounters> parseNetDev(std::string_view text) {
    std::vector<InterfaceCounters> out;
    forEachLine(text, [&](std::string_view line) {
        auto colon = line.find(':');
        if (colon == std::string_view::npos) return; // the two header lines
        InterfaceCounters c;
        c.name = std::string(trim(line.substr(0, colon)));
        std::string_view rest = line.substr(colon + 1);
        // received: bytes packets errs drop fifo frame compressed multicast; then sent: bytes ...
        std::optional<std::uint64_t> fields[9];
        for (auto& f : fields)
            f = number<std::uint64_t>(nextWord(rest));
        if (!fields[0] || !fields[8]) return;
        c.received = *fields[0];
        c.sent = *fields[8];
        out.push_back(std::move(c));
    });
    return out;
}

std::vector<DiskCounters> parseDiskstats(std::string_view text) {
    std::vector<DiskCounters> out;
    forEachLine(text, [&](std::string_view line) {
        // major minor name reads merged sectorsRead ms writes merged sectorsWritten ...
        std::string_view words[10];
        for (auto& w : words)
            w = nextWord(line);
        auto read = number<std::uint64_t>(words[5]);
        auto written = number<std::uint64_t>(words[9]);
        if (words[2].empty() || !read || !written) return;
        out.push_back({std::string(words[2]), *read, *written});
    });
    return out;
}

std::optional<double> parseUptime(std::string_view text) {
    auto word = nextWord(text);
    auto value = number<double>(word);
    if (!value || *value < 0) return std::nullopt;
    return value;
}

std::optional<ProcessStat> parseProcessStat(std::string_view text) {
    auto open = text.find('(');
    auto close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return std::nullopt;
    ProcessStat out;
    auto pid = number<std::int32_t>(trim(text.substr(0, open)));
    if (!pid) return std::nullopt;
    out.pid = *pid;
    out.name = std::string(text.substr(open + 1, close - open - 1));
    std::string_view rest = text.substr(close + 1);
    // Fields from the third on: state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt
    // utime stime cutime cstime priority nice threads itrealvalue starttime vsize rss.
    std::string_view f[22];
    for (auto& w : f)
        w = nextWord(rest);
    if (f[21].empty()) return std::nullopt;
    out.state = f[0].empty() ? '?' : f[0][0];
    auto parent = number<std::int32_t>(f[1]);
    auto flags = number<std::uint64_t>(f[6]);
    auto user = number<std::uint64_t>(f[11]);
    auto system = number<std::uint64_t>(f[12]);
    auto threads = number<std::int32_t>(f[17]);
    auto start = number<std::uint64_t>(f[19]);
    auto rss = number<std::int64_t>(f[21]);
    if (!parent || !user || !system || !threads || !start) return std::nullopt;
    out.parent = *parent;
    out.userTicks = *user;
    out.systemTicks = *system;
    out.threads = *threads;
    out.startTicks = *start;
    out.residentPages = rss && *rss > 0 ? std::uint64_t(*rss) : 0;
    constexpr std::uint64_t kernelThreadFlag = 0x00200000; // PF_KTHREAD
    out.kernelThread = flags && (*flags & kernelThreadFlag);
    return out;
}

ProcessStatus parseProcessStatus(std::string_view text) {
    ProcessStatus out;
    forEachLine(text, [&](std::string_view line) {
        auto colon = line.find(':');
        if (colon == std::string_view::npos) return;
        auto key = line.substr(0, colon);
        std::string_view rest = line.substr(colon + 1);
        auto value = number<std::uint64_t>(nextWord(rest));
        if (!value) return;
        auto bytes = nextWord(rest) == "kB" ? *value * 1024 : *value;
        if (key == "Uid")
            out.uid = std::uint32_t(*value);
        else if (key == "VmRSS")
            out.residentBytes = bytes;
        else if (key == "RssAnon")
            out.anonymousBytes = bytes;
        else if (key == "VmSwap")
            out.swappedBytes = bytes;
        else if (key == "voluntary_ctxt_switches")
            out.voluntarySwitches = *value;
    });
    return out;
}

std::optional<ProcessIo> parseProcessIo(std::string_view text) {
    std::optional<std::uint64_t> read, written;
    forEachLine(text, [&](std::string_view line) {
        auto key = nextWord(line);
        auto value = number<std::uint64_t>(nextWord(line));
        if (key == "read_bytes:")
            read = value;
        else if (key == "write_bytes:")
            written = value;
    });
    if (!read || !written) return std::nullopt;
    return ProcessIo{*read, *written};
}

VitalsSnapshot::Pressure pressureLevel(const std::optional<Pressure>& stall, std::uint64_t availableBytes,
                                       std::uint64_t totalBytes) {
    using P = VitalsSnapshot::Pressure;
    if (stall) {
        if (stall->fullAvg10 >= 10 || stall->someAvg10 >= 40) return P::critical;
        if (stall->someAvg10 >= 10) return P::warning;
        return P::normal;
    }
    if (totalBytes == 0) return P::normal;
    double available = double(availableBytes) / double(totalBytes);
    return available < 0.05 ? P::critical : available < 0.10 ? P::warning : P::normal;
}

VitalsSnapshot::Memory readMemory(const std::filesystem::path& procRoot,
                                  const std::filesystem::path& sysRoot) {
    VitalsSnapshot::Memory m;
    auto text = readText(procRoot / "meminfo");
    if (!text) return m;
    auto info = parseMeminfo(*text);
    auto field = [&](std::string_view key) -> std::uint64_t {
        auto it = info.find(key);
        return it == info.end() ? 0 : it->second;
    };
    m.totalBytes = field("MemTotal");
    std::uint64_t available = info.contains("MemAvailable")
                                  ? field("MemAvailable")
                                  : field("MemFree") + field("Buffers") + field("Cached"); // before 3.14
    available = std::min(available, m.totalBytes);
    m.usedBytes = m.totalBytes - available;
    m.appBytes = field("AnonPages");
    m.wiredBytes = field("KernelStack") + field("PageTables") + field("SUnreclaim") + field("Unevictable");
    m.compressedBytes = field("Zswap");
    std::error_code ec;
    for (auto& device : std::filesystem::directory_iterator(sysRoot / "block", ec)) {
        if (!device.path().filename().string().starts_with("zram")) continue;
        if (auto stat = readText(device.path() / "mm_stat")) {
            // orig_data_size compr_data_size mem_used_total ...
            std::string_view rest = *stat;
            nextWord(rest);
            nextWord(rest);
            if (auto used = number<std::uint64_t>(nextWord(rest))) m.compressedBytes += *used;
        }
    }
    auto swapTotal = field("SwapTotal"), swapFree = field("SwapFree");
    m.swapUsedBytes = swapTotal > swapFree ? swapTotal - swapFree : 0;
    std::optional<Pressure> stall;
    if (auto psi = readText(procRoot / "pressure" / "memory")) stall = parsePressure(*psi);
    m.pressure = pressureLevel(stall, available, m.totalBytes);
    return m;
}

} // namespace vantle::procfs
