#include "VantleEgress/EgressBroker.h"

#include "VantleEgress/AddressRule.h"
#include "VantleEgress/CurlCalls.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <sys/socket.h>

namespace vantle {

namespace {

using Easy = std::unique_ptr<CURL, decltype(&::curl_easy_cleanup)>;
using List = std::unique_ptr<curl_slist, decltype(&::curl_slist_free_all)>;

std::string lowerCaseName(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trimmedField(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() &&
           (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
        text.remove_suffix(1);
    return text;
}

// A header field that would smuggle a second line into the request is never sent.
bool isSafeHeader(std::string_view name, std::string_view value) {
    if (name.empty()) return false;
    for (char c : name)
        if (c <= ' ' || c == ':' || c == 127) return false;
    for (char c : value)
        if (c == '\r' || c == '\n' || c == '\0') return false;
    return true;
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool isSecureConnectionFailure(CURLcode code) {
    switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
        return true;
    default:
        return false;
    }
}

EgressError error(EgressError::Case what, std::string sentence, std::optional<int> status = std::nullopt) {
    return EgressError{what, std::move(sentence), status};
}

} // namespace

// One request to one address: what libcurl is told and what came back.
struct EgressBroker::Hop {
    // In
    std::string url;
    std::string host;
    EgressRequest::Method method = EgressRequest::Method::get;
    const std::string* body = nullptr;
    std::vector<std::string> headerLines;

    // Out
    CURLcode code = CURLE_OK;
    int status = 0;
    int osError = 0;
    std::string errorText;
    std::map<std::string, std::string> headers;
    std::string received;
    std::optional<std::string> location; // absolute, as libcurl resolved it against the address
    bool locationHeader = false;
    bool tooLarge = false;
    bool withheld = false;
    std::int64_t maximumBytes = 0;
    bool allowsLoopback = false;
};

EgressBroker::EgressBroker(std::shared_ptr<EgressLedger> ledger, Options options)
    : ledger_(std::move(ledger)), options_(std::move(options)) {}

EgressBroker::~EgressBroker() {
    cancelAll();
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return transfers_.empty(); });
}

void EgressBroker::cancelAll() {
    std::lock_guard lock(mutex_);
    for (auto& [number, flag] : transfers_)
        flag->store(true);
}

std::expected<EgressResponse, EgressFailure> EgressBroker::send(const EgressRequest& request) {
    const auto& limits = options_.limits;
    AddressRule rule{limits.maximumURLLength, options_.allowsLoopback};
    if (auto checked = rule.check(request.url); !checked) return std::unexpected(checked.error());
    if (request.body && request.body->size() > limits.maximumRequestBytes)
        return std::unexpected(
            EgressRefusal{EgressRefusal::Case::bodyTooLarge,
                          fillIn(EgressRefusal::bodyTooLargeSentence,
                                 {{"maximumRequestBytes", std::to_string(limits.maximumRequestBytes)}})});
    return sendChecked(request);
}

std::expected<EgressResponse, EgressFailure> EgressBroker::sendChecked(const EgressRequest& request) {
    const auto& limits = options_.limits;
    AddressRule rule{limits.maximumURLLength, options_.allowsLoopback};

    auto flag = std::make_shared<std::atomic<bool>>(false);
    std::uint64_t number;
    {
        std::lock_guard lock(mutex_);
        number = nextTransfer_++;
        transfers_.emplace(number, flag);
    }
    struct Unregister {
        EgressBroker* broker;
        std::uint64_t number;
        ~Unregister() {
            {
                std::lock_guard lock(broker->mutex_);
                broker->transfers_.erase(number);
            }
            broker->finished_.notify_all();
        }
    } unregister{this, number};

    // The fixed fields come last into the map, so a request's own field of the same name is replaced.
    std::map<std::string, std::string> fields;
    for (const auto& [name, value] : request.headers)
        if (isSafeHeader(name, value)) fields[lowerCaseName(name)] = value;
    for (const auto& [name, value] : request.identity.headers(options_.version))
        fields[lowerCaseName(name)] = value;
    // Built as strings, not assigned from literals: GCC 12 at -O3 inlines the assignment into a map
    // node's string and warns of a copy past the largest object size (-Wstringop-overflow), a false
    // positive of that release; constructing the value takes another path.
    fields.insert_or_assign("accept-language", std::string("en-US,en;q=0.9"));
    fields.insert_or_assign("sec-gpc", std::string("1"));
    std::vector<std::string> headerLines;
    for (const auto& [name, value] : fields)
        headerLines.push_back(name + ": " + value);
    headerLines.push_back("Expect:"); // no 100-continue round trip before a small body

    std::string url = request.url;
    std::optional<std::string> redirectedFrom;
    auto method = request.method;
    const std::string* body = request.body ? &*request.body : nullptr;
    for (int redirects = 0;; ++redirects) {
        EgressLedger::Leaving leaving{request.purpose,
                                      url,
                                      std::string(methodName(method)),
                                      request.query,
                                      body ? static_cast<std::int64_t>(body->size()) : 0,
                                      request.run,
                                      std::nullopt};
        auto id = ledger_->recordLeaving(leaving);
        if (!id)
            return std::unexpected(
                error(EgressError::Case::ledgerNotWritten,
                      fillIn(EgressError::ledgerNotWrittenSentence, {{"reason", id.error().reason}})));

        Hop hop;
        hop.url = url;
        hop.host = hostOfUrl(url);
        hop.method = method;
        hop.body = body;
        hop.headerLines = headerLines;
        hop.maximumBytes = limits.maximumResponseBytes;
        hop.allowsLoopback = options_.allowsLoopback;
        runHop(hop, *flag);

        std::optional<EgressError> failed;
        std::optional<std::string> note;
        const std::string& host = hop.host;
        if (hop.withheld) {
            failed = error(EgressError::Case::connectionFailed,
                           fillIn(EgressError::connectionFailedSentence,
                                  {{"reason", host + " resolved to a private address"}}));
            note = std::string(EgressError::withheldNote);
        } else if (hop.tooLarge) {
            failed = error(EgressError::Case::answerTooLarge,
                           fillIn(EgressError::answerTooLargeSentence,
                                  {{"maximumResponseBytes", std::to_string(limits.maximumResponseBytes)}}),
                           hop.status ? std::optional(hop.status) : std::nullopt);
            note = std::string(EgressError::answerTooLargeNote);
        } else if (hop.code != CURLE_OK) {
            note = std::string(EgressError::connectionFailedNote);
            if (isSecureConnectionFailure(hop.code)) {
                failed = error(EgressError::Case::noSecureConnection,
                               fillIn(EgressError::noSecureConnectionSentence, {{"host", host}}));
                note = std::string(EgressError::noSecureConnectionNote);
            } else if (hop.osError == ENETUNREACH || hop.osError == ENETDOWN) {
                failed =
                    error(EgressError::Case::notConnected, std::string(EgressError::notConnectedSentence));
            } else if (hop.code == CURLE_OPERATION_TIMEDOUT) {
                failed = error(EgressError::Case::timedOut, std::string(EgressError::timedOutSentence));
            } else if (hop.code == CURLE_COULDNT_RESOLVE_HOST) {
                failed = error(EgressError::Case::hostNotFound,
                               fillIn(EgressError::hostNotFoundSentence, {{"host", host}}));
            } else {
                std::string reason = flag->load() ? std::string("the request was stopped") : hop.errorText;
                failed = error(EgressError::Case::connectionFailed,
                               fillIn(EgressError::connectionFailedSentence, {{"reason", reason}}));
            }
        }

        EgressLedger::Result result;
        if (hop.status) result.status = hop.status;
        result.failure = note;
        result.bytesReceived = static_cast<std::int64_t>(hop.received.size());
        result.redirectedFrom = redirectedFrom;
        // The request has left; a result line that cannot be written shows at the next start as a
        // request whose result never came, which is what the user can know of it.
        (void)ledger_->recordResult(*id, result);

        if (failed) return std::unexpected(*failed);

        if (isRedirect(hop.status)) {
            if (!hop.locationHeader || !hop.location || hop.location->empty())
                return std::unexpected(error(EgressError::Case::unreadableRedirect,
                                             std::string(EgressError::unreadableRedirectSentence),
                                             hop.status));
            if (method == EgressRequest::Method::post && (hop.status == 307 || hop.status == 308))
                return std::unexpected(error(EgressError::Case::resendElsewhere,
                                             std::string(EgressError::resendElsewhereSentence), hop.status));
            if (redirects >= limits.maximumRedirects)
                return std::unexpected(
                    error(EgressError::Case::tooManyRedirects,
                          fillIn(EgressError::tooManyRedirectsSentence,
                                 {{"maximumRedirects", std::to_string(limits.maximumRedirects)}}),
                          hop.status));
            if (auto checked = rule.check(*hop.location); !checked)
                return std::unexpected(
                    error(EgressError::Case::redirectRefused, checked.error().sentence, hop.status));
            redirectedFrom = url;
            url = *hop.location;
            if (method ==
                EgressRequest::Method::post) { // 301, 302 and 303 carry on as a GET without the body
                method = EgressRequest::Method::get;
                body = nullptr;
            }
            continue;
        }

        if (hop.status < 200 || hop.status > 299) {
            bool refusedToRead =
                hop.status == 401 || hop.status == 403 || hop.status == 407 || hop.status == 451;
            return std::unexpected(
                error(refusedToRead ? EgressError::Case::notAllowed : EgressError::Case::status,
                      fillIn(refusedToRead ? EgressError::notAllowedSentence : EgressError::statusSentence,
                             {{"status", std::to_string(hop.status)}}),
                      hop.status));
        }
        return EgressResponse{url, hop.status, std::move(hop.headers), std::move(hop.received)};
    }
}

void EgressBroker::runHop(Hop& hop, const std::atomic<bool>& cancelled) const {
    auto calls = curlCalls();
    if (!calls) {
        hop.code = CURLE_FAILED_INIT;
        hop.errorText = "the network library could not be loaded (" + calls.error() + ")";
        return;
    }
    const CurlCalls& curl = **calls;
    Easy easy(curl.easy_init(), curl.easy_cleanup);
    if (!easy) {
        hop.code = CURLE_FAILED_INIT;
        hop.errorText = "the transfer could not be made";
        return;
    }
    CURL* h = easy.get();
    char errorBuffer[CURL_ERROR_SIZE] = {};
    List headers(nullptr, curl.slist_free_all);
    for (const auto& line : hop.headerLines) {
        auto* grown = curl.slist_append(headers.get(), line.c_str());
        if (!grown) break;
        (void)headers.release();
        headers.reset(grown);
    }
    List resolve(nullptr, curl.slist_free_all);
    for (const auto& entry : options_.resolve) {
        auto* grown = curl.slist_append(resolve.get(), entry.c_str());
        if (!grown) break;
        (void)resolve.release();
        resolve.reset(grown);
    }

    curl.easy_setopt(h, CURLOPT_URL, hop.url.c_str());
    curl.easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https");
    curl.easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    curl.easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // Requests go straight to the site: through a proxy the address checked below would be the proxy's.
    curl.easy_setopt(h, CURLOPT_PROXY, "");
    curl.easy_setopt(h, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl.easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.limits.timeout.count()));
    curl.easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.limits.timeout.count()));
    curl.easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    curl.easy_setopt(h, CURLOPT_ERRORBUFFER, errorBuffer);
    if (options_.trustedCertificates)
        curl.easy_setopt(h, CURLOPT_CAINFO, options_.trustedCertificates->c_str());
    if (resolve) curl.easy_setopt(h, CURLOPT_RESOLVE, resolve.get());
    if (hop.method == EgressRequest::Method::post) {
        curl.easy_setopt(h, CURLOPT_POST, 1L);
        curl.easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(hop.body ? hop.body->size() : 0));
        curl.easy_setopt(h, CURLOPT_COPYPOSTFIELDS, hop.body ? hop.body->c_str() : "");
    } else {
        curl.easy_setopt(h, CURLOPT_HTTPGET, 1L);
    }

    // The address about to be connected to is checked before the socket exists, so nothing is ever
    // sent to a private address a public name resolved to.
    curl.easy_setopt(h, CURLOPT_OPENSOCKETDATA, &hop);
    auto* openSocket = +[](void* data, curlsocktype, curl_sockaddr* address) -> curl_socket_t {
        auto& hop = *static_cast<Hop*>(data);
        bool loopback = false;
        if (isNonPublicAddress(&address->addr, &loopback) && !(loopback && hop.allowsLoopback)) {
            hop.withheld = true;
            return CURL_SOCKET_BAD;
        }
        return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    };
    curl.easy_setopt(h, CURLOPT_OPENSOCKETFUNCTION, openSocket);

    curl.easy_setopt(h, CURLOPT_HEADERDATA, &hop);
    auto* onHeader = +[](char* data, size_t size, size_t count, void* user) -> size_t {
        auto& hop = *static_cast<Hop*>(user);
        size_t bytes = size * count;
        std::string_view line(data, bytes);
        if (line.starts_with("HTTP/")) { // a new answer (after an interim one) starts afresh
            hop.headers.clear();
            hop.locationHeader = false;
            return bytes;
        }
        auto colon = line.find(':');
        if (colon == std::string_view::npos) return bytes;
        std::string name = lowerCaseName(trimmedField(line.substr(0, colon)));
        std::string value(trimmedField(line.substr(colon + 1)));
        if (name == "content-length") {
            std::int64_t announced = 0;
            auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), announced);
            if ((ec == std::errc{} && announced > hop.maximumBytes) || ec == std::errc::result_out_of_range) {
                hop.tooLarge = true;
                return 0; // abandons the transfer
            }
        }
        if (name == "location") hop.locationHeader = true;
        auto [it, inserted] = hop.headers.emplace(name, value);
        if (!inserted) it->second += ", " + value;
        return bytes;
    };
    curl.easy_setopt(h, CURLOPT_HEADERFUNCTION, onHeader);

    curl.easy_setopt(h, CURLOPT_WRITEDATA, &hop);
    auto* onBody = +[](char* data, size_t size, size_t count, void* user) -> size_t {
        auto& hop = *static_cast<Hop*>(user);
        size_t bytes = size * count;
        if (static_cast<std::int64_t>(hop.received.size() + bytes) > hop.maximumBytes) {
            hop.tooLarge = true;
            return 0;
        }
        hop.received.append(data, bytes);
        return bytes;
    };
    curl.easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);

    curl.easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl.easy_setopt(h, CURLOPT_XFERINFODATA, &cancelled);
    auto* onProgress = +[](void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) -> int {
        return static_cast<const std::atomic<bool>*>(data)->load() ? 1 : 0;
    };
    curl.easy_setopt(h, CURLOPT_XFERINFOFUNCTION, onProgress);

    hop.code = curl.easy_perform(h);

    long status = 0;
    curl.easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    hop.status = static_cast<int>(status);
    long osError = 0;
    curl.easy_getinfo(h, CURLINFO_OS_ERRNO, &osError);
    hop.osError = static_cast<int>(osError);
    char* location = nullptr;
    if (curl.easy_getinfo(h, CURLINFO_REDIRECT_URL, &location) == CURLE_OK && location)
        hop.location = location;
    hop.errorText = errorBuffer[0] ? std::string(errorBuffer) : std::string(curl.easy_strerror(hop.code));

    // A second look at the address really used, in case a connection was reused or set up some other way.
    char* connected = nullptr;
    if (hop.code == CURLE_OK && curl.easy_getinfo(h, CURLINFO_PRIMARY_IP, &connected) == CURLE_OK &&
        connected && *connected) {
        bool loopback = false;
        auto nonPublic = isNonPublicAddressText(connected, &loopback);
        if (!nonPublic || (*nonPublic && !(loopback && hop.allowsLoopback))) hop.withheld = true;
    }
    if (hop.withheld) {
        hop.received.clear();
        hop.headers.clear();
    }
}

std::map<std::string, std::string> EgressIdentity::headers(std::string_view version) const {
    if (kind == Kind::browser)
        return {{"User-Agent", std::string(browserAgent)}, {"Accept", std::string(browserAccept)}};
    return {{"User-Agent", fillIn(applicationAgent, {{"version", version}, {"site", makerSite}})}};
}

} // namespace vantle
