#include "Platform/CryptoCalls.h"

#include "Platform/SharedLibrary.h"

namespace vantle {

std::expected<const CryptoCalls*, std::string> cryptoCalls() {
    static const auto loaded =
        SharedLibrary::table<CryptoCalls>(VANTLE_CRYPTO_SONAME, [](const SharedLibrary& lib, CryptoCalls& c) {
            return lib.bind(c.MD_fetch, "EVP_MD_fetch") && lib.bind(c.sha256, "EVP_sha256") &&
                   lib.bind(c.MD_CTX_new, "EVP_MD_CTX_new") && lib.bind(c.MD_CTX_free, "EVP_MD_CTX_free") &&
                   lib.bind(c.MD_CTX_copy_ex, "EVP_MD_CTX_copy_ex") &&
                   lib.bind(c.DigestInit_ex, "EVP_DigestInit_ex") &&
                   lib.bind(c.DigestUpdate, "EVP_DigestUpdate") &&
                   lib.bind(c.DigestFinal_ex, "EVP_DigestFinal_ex") &&
                   lib.bind(c.DigestVerifyInit, "EVP_DigestVerifyInit") &&
                   lib.bind(c.DigestVerify, "EVP_DigestVerify") &&
                   lib.bind(c.PKEY_new_raw_public_key, "EVP_PKEY_new_raw_public_key") &&
                   lib.bind(c.PKEY_free, "EVP_PKEY_free") && lib.bind(c.DecodeBlock, "EVP_DecodeBlock");
        });
    return SharedLibrary::kept(loaded);
}

} // namespace vantle
