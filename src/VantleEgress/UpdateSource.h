// Where updates come from and whom they must come from: the feed's address, the maker's Ed25519
// public key (32 bytes, base64), the developer team and the application's bundle identifier. A copy
// built without a key has no source set up and never checks. Plain value; safe to copy.
#pragma once
#include <string>

namespace vantle {

struct UpdateSource {
    std::string feed;
    std::string publicKey;
    std::string team;
    std::string bundleIdentifier;

    bool isSetUp() const { return !feed.empty() && !publicKey.empty() && !bundleIdentifier.empty(); }

    // This build's own source. The key is given at build time (-DVANTLE_UPDATE_KEY=base64); without
    // it the copy reads "Updates are not set up in this copy."
    static UpdateSource builtIn();
};

} // namespace vantle
