// The machine's controls that the product model's actions reach: restart for now. A sandbox's are the
// stand-in machine's, which records the request; a real Linux run asks the desktop's session manager
// over DBus (so apps are asked to quit and may ask to save), else logind. Implementations are
// thread-safe; the stand-in's record is an actor of its own.
#pragma once
#include "VantleLiteLive/StandInMac.h"

#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class MachineControls {
  public:
    virtual ~MachineControls() = default;
    virtual bool isStandIn() const = 0;
    // Asks for a restart; the error is the sentence for the user.
    virtual std::expected<void, std::string> restart() = 0;
};

class StandInMachine : public MachineControls {
  public:
    explicit StandInMachine(std::shared_ptr<StandInMac> mac) : mac_(std::move(mac)) {}
    bool isStandIn() const override { return true; }
    std::expected<void, std::string> restart() override;

  private:
    std::shared_ptr<StandInMac> mac_;
};

class SessionMachine : public MachineControls {
  public:
    // Runs a program with its arguments and gives its exit status (-1 when it could not start).
    using Runner = std::function<int(const std::vector<std::string>&)>;

    static constexpr std::string_view notAsked = "This machine could not be asked to restart: neither the "
                                                 "desktop's session manager nor logind answered.";

    // `environment` tells whether there is a session bus; `runner` defaults to posix_spawnp + wait.
    explicit SessionMachine(std::map<std::string, std::string> environment, Runner runner = {});
    bool isStandIn() const override { return false; }
    std::expected<void, std::string> restart() override;

    static int spawnAndWait(const std::vector<std::string>& command);

  private:
    std::map<std::string, std::string> environment_;
    Runner runner_;
};

} // namespace vantle
