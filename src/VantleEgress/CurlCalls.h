// The functions of libcurl that the network road calls, bound the first time a request is checked
// or made. Only the update check goes out, and rarely: loading libcurl and its thirty-odd
// dependencies at start-up would cost every other command about a third of its start. The table
// lives as long as the program and may be used from several threads; libcurl's global set-up has
// been done by the time it is returned.
#pragma once
#define CURL_DISABLE_TYPECHECK // the checking macros would call the linked functions by name
#include <curl/curl.h>
#include <expected>
#include <string>

namespace vantle {

struct CurlCalls {
    decltype(&::curl_global_init) global_init;
    decltype(&::curl_easy_init) easy_init;
    decltype(&::curl_easy_cleanup) easy_cleanup;
    decltype(&::curl_easy_setopt) easy_setopt;
    decltype(&::curl_easy_perform) easy_perform;
    decltype(&::curl_easy_getinfo) easy_getinfo;
    decltype(&::curl_easy_strerror) easy_strerror;
    decltype(&::curl_slist_append) slist_append;
    decltype(&::curl_slist_free_all) slist_free_all;
    decltype(&::curl_url) url;
    decltype(&::curl_url_cleanup) url_cleanup;
    decltype(&::curl_url_get) url_get;
    decltype(&::curl_url_set) url_set;
    decltype(&::curl_free) free;
};

// The loader's sentence when libcurl cannot be loaded; loaded once, on the first call.
std::expected<const CurlCalls*, std::string> curlCalls();

} // namespace vantle
