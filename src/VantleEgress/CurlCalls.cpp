#include "VantleEgress/CurlCalls.h"

#include "Platform/SharedLibrary.h"

namespace vantle {

std::expected<const CurlCalls*, std::string> curlCalls() {
    static const auto loaded = [] {
        auto calls =
            SharedLibrary::table<CurlCalls>(VANTLE_CURL_SONAME, [](const SharedLibrary& lib, CurlCalls& c) {
                return lib.bind(c.global_init, "curl_global_init") &&
                       lib.bind(c.easy_init, "curl_easy_init") &&
                       lib.bind(c.easy_cleanup, "curl_easy_cleanup") &&
                       lib.bind(c.easy_setopt, "curl_easy_setopt") &&
                       lib.bind(c.easy_perform, "curl_easy_perform") &&
                       lib.bind(c.easy_getinfo, "curl_easy_getinfo") &&
                       lib.bind(c.easy_strerror, "curl_easy_strerror") &&
                       lib.bind(c.slist_append, "curl_slist_append") &&
                       lib.bind(c.slist_free_all, "curl_slist_free_all") && lib.bind(c.url, "curl_url") &&
                       lib.bind(c.url_cleanup, "curl_url_cleanup") && lib.bind(c.url_get, "curl_url_get") &&
                       lib.bind(c.url_set, "curl_url_set") && lib.bind(c.free, "curl_free");
            });
        // Not thread-safe in libcurl itself; the static's own initialisation runs it exactly once.
        if (calls && calls->global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
            return decltype(calls)(std::unexpect, std::string(VANTLE_CURL_SONAME) + " could not be set up");
        return calls;
    }();
    return SharedLibrary::kept(loaded);
}

} // namespace vantle
