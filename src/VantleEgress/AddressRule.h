// The rule every address must pass before the egress broker writes or sends anything: https only,
// a usable host, no credentials, a bounded length, no name or address on this machine or the local
// network. Also used on each redirect's target and on the address actually connected to. Free
// functions over values; thread-safe.
#pragma once
#include "VantleEgress/EgressFailure.h"

#include <cstddef>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace vantle {

struct AddressRule {
    std::size_t maximumURLLength = 2000;
    // Tests reach their own server on 127.0.0.1; a running program never sets this.
    bool allowsLoopback = false;

    // The host of an address that passes, lower-cased and without brackets.
    std::expected<std::string, EgressRefusal> check(std::string_view url) const;
};

// Whether an address (IPv4 or IPv6, IPv4-mapped and embedded forms included) lies in a private,
// shared, loopback, link-local, unique-local, multicast or otherwise non-public range.
// `loopback` is set when it is a loopback address.
bool isNonPublicAddress(const sockaddr* address, bool* loopback = nullptr);
// The same for an address written as text; nullopt when the text is no numeric address.
std::optional<bool> isNonPublicAddressText(std::string_view text, bool* loopback = nullptr);

// A name on this machine or the local network: one label, or under .local, .localhost, .internal,
// .lan, .home.arpa, .localdomain, or localhost itself.
bool isLocalName(std::string_view host);

} // namespace vantle
