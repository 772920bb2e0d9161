// What a caller hands the egress broker and what it gets back: the request (purpose, address,
// method, headers, body, search words, identity) and the answer (final address, status, headers,
// body). Plain values, owned by whoever holds them; safe to copy between threads.
#pragma once
#include "VantleSpec/LedgerEntry.h"

#include <map>
#include <optional>
#include <string>

namespace vantle {

// How a request presents itself. The application's own identity names this program and its
// version; the browser identity reads a web page as a browser would.
struct EgressIdentity {
    enum class Kind { application, browser };
    Kind kind = Kind::application;

    static constexpr std::string_view makerSite = "https://vantle.app";
    static constexpr std::string_view applicationAgent = "Vantle/{version} ({site}; Mac app)";
    static constexpr std::string_view browserAgent = "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) "
                                                     "AppleWebKit/605.1.15 (KHTML, like Gecko) Version/26.0 "
                                                     "Safari/605.1.15";
    static constexpr std::string_view browserAccept = "text/html,application/xhtml+xml;q=0.9,*/*;q=0.5";

    // The identity's own header fields, for the program's `version`.
    std::map<std::string, std::string> headers(std::string_view version) const;
};

struct EgressRequest {
    enum class Method { get, post };

    LedgerEntry::Purpose purpose = LedgerEntry::Purpose::page;
    std::string url;
    Method method = Method::get;
    std::map<std::string, std::string> headers; // extra fields; the fixed ones cannot be replaced
    std::optional<std::string> body;            // bytes, for POST
    std::optional<std::string> query;           // the words searched for, copied to the ledger
    std::optional<std::string> run;             // the agent run that caused the request
    EgressIdentity identity;
};

constexpr std::string_view methodName(EgressRequest::Method method) {
    return method == EgressRequest::Method::post ? "POST" : "GET";
}

struct EgressResponse {
    std::string url; // the final address, after redirects
    int status = 0;
    std::map<std::string, std::string> headers; // names lower-cased
    std::string body;
};

} // namespace vantle
