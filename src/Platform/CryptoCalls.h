// The functions of the system's cryptography library (libcrypto) that the program calls, bound the
// first time one is needed: an update's signature is checked, or SHA-256 runs on a processor without
// instructions of its own for it. Loading libcrypto at start-up cost every command about 2.5 ms, a
// third of its start. The table lives as long as the program; it may be used from several threads.
#pragma once
#include <expected>
#include <openssl/evp.h>
#include <string>

namespace vantle {

struct CryptoCalls {
    decltype(&::EVP_MD_fetch) MD_fetch;
    decltype(&::EVP_sha256) sha256;
    decltype(&::EVP_MD_CTX_new) MD_CTX_new;
    decltype(&::EVP_MD_CTX_free) MD_CTX_free;
    decltype(&::EVP_MD_CTX_copy_ex) MD_CTX_copy_ex;
    decltype(&::EVP_DigestInit_ex) DigestInit_ex;
    decltype(&::EVP_DigestUpdate) DigestUpdate;
    decltype(&::EVP_DigestFinal_ex) DigestFinal_ex;
    decltype(&::EVP_DigestVerifyInit) DigestVerifyInit;
    decltype(&::EVP_DigestVerify) DigestVerify;
    decltype(&::EVP_PKEY_new_raw_public_key) PKEY_new_raw_public_key;
    decltype(&::EVP_PKEY_free) PKEY_free;
    decltype(&::EVP_DecodeBlock) DecodeBlock;
};

// The loader's sentence when libcrypto cannot be loaded; loaded once, on the first call.
std::expected<const CryptoCalls*, std::string> cryptoCalls();

} // namespace vantle
