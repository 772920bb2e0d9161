// The only road from this program to the network. Every request is checked against fixed rules,
// written to the network ledger before a byte leaves, sent over https with a fixed identity and
// fixed headers, held to fixed limits while it runs (answer size, time, redirects followed by hand
// and each checked again, the address actually connected to), and its result written to the ledger.
// Owned by the live services (shared_ptr). send() may be called from several threads at once; each
// call blocks its own thread until the answer, a failure or cancelAll().
#pragma once
#include "VantleEgress/EgressFailure.h"
#include "VantleEgress/EgressLedger.h"
#include "VantleEgress/EgressRequest.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class EgressBroker {
  public:
    struct Limits {
        std::int64_t maximumResponseBytes = 64000;
        std::chrono::milliseconds timeout{20000};
        int maximumRedirects = 5;
        std::size_t maximumURLLength = 2000;
        std::size_t maximumRequestBytes = 4096;
    };

    struct Options {
        Limits limits;
        // While false, loopback addresses are refused like any other local address. For tests only.
        bool allowsLoopback = false;
        // The version named in the application identity.
        std::string version = VANTLE_VERSION;
        // Seams for tests: certificates to trust instead of the system's, and "host:port:address"
        // entries that pin a name to an address without asking the resolver.
        std::optional<std::filesystem::path> trustedCertificates;
        std::vector<std::string> resolve;
    };

    EgressBroker(std::shared_ptr<EgressLedger> ledger, Options options);
    // Cancels the running transfers and waits for their threads to hand back their failures.
    ~EgressBroker();
    EgressBroker(const EgressBroker&) = delete;
    EgressBroker& operator=(const EgressBroker&) = delete;

    std::expected<EgressResponse, EgressFailure> send(const EgressRequest& request);

    // Stops every running transfer; each of their send() calls returns a connection failure.
    void cancelAll();

    const Limits& limits() const { return options_.limits; }

  private:
    struct Hop;
    std::expected<EgressResponse, EgressFailure> sendChecked(const EgressRequest& request);
    void runHop(Hop& hop, const std::atomic<bool>& cancelled) const;

    std::shared_ptr<EgressLedger> ledger_;
    Options options_;

    // The running transfers, by their own number, each with the flag that stops it.
    mutable std::mutex mutex_;
    std::condition_variable finished_;
    std::map<std::uint64_t, std::shared_ptr<std::atomic<bool>>> transfers_;
    std::uint64_t nextTransfer_ = 0;
};

} // namespace vantle
