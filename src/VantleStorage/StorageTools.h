// The storage subsystem offered as four tools with typed arguments and text results:
// scan_storage, clean_storage, set_aside_storage and put_back_storage. Each checks its arguments and
// answers in sentences for the user, with figures under fixed keys. A change happens only after a
// preview in the same run: the plans shown are kept on the plan shelf and carried out as shown.
// An actor: every call holds the tools' lock; the results are the caller's own values.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleStorage/HoldingShelf.h"
#include "VantleStorage/StorageCleaner.h"
#include "VantleStorage/StorageScanner.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct ToolSpec {
    struct Argument {
        std::string name;
        std::string type; // "bool" or "list of strings"
        std::string description;
        bool operator==(const Argument&) const = default;
    };
    std::string name;
    std::string description;
    std::vector<Argument> arguments;
    bool operator==(const ToolSpec&) const = default;
};

struct ToolResult {
    std::string text;
    Json figures = Json::object();
    bool refused = false; // nothing was done; the text says why
};

// The plans shown in this run, by the run and what was chosen.
class PlanShelf {
  public:
    struct Key {
        std::string run;
        std::vector<std::string> chosen;
        auto operator<=>(const Key&) const = default;
    };
    void keep(Key key, CleanPlan plan);
    std::optional<CleanPlan> take(const Key& key);

  private:
    std::map<Key, CleanPlan> plans_;
};

class StorageTools {
  public:
    static constexpr std::string_view scanStorage = "scan_storage";
    static constexpr std::string_view cleanStorage = "clean_storage";
    static constexpr std::string_view setAsideStorage = "set_aside_storage";
    static constexpr std::string_view putBackStorage = "put_back_storage";

    StorageTools(std::filesystem::path home, std::shared_ptr<StorageScanner> scanner,
                 std::shared_ptr<StorageCleaner> cleaner, std::shared_ptr<HoldingShelf> shelf);

    static const std::vector<ToolSpec>& specs();

    // Runs one tool in run `run`. For clean_storage and set_aside_storage, `carryOut` false shows the
    // preview and keeps its plan; true carries out the plan shown earlier in the same run.
    ToolResult call(std::string_view tool, const Json& arguments, std::string_view run,
                    bool carryOut = false);

  private:
    ToolResult scan(const Json& arguments);
    ToolResult clean(const Json& arguments, std::string_view run, bool carryOut);
    ToolResult setAside(const Json& arguments, std::string_view run, bool carryOut);
    ToolResult putBack(const Json& arguments);

    std::mutex mutex_;
    std::filesystem::path home_;
    std::shared_ptr<StorageScanner> scanner_;
    std::shared_ptr<StorageCleaner> cleaner_;
    std::shared_ptr<HoldingShelf> shelf_;
    PlanShelf plans_;
};

} // namespace vantle
