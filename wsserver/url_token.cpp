#include "wsserver/url_token.h"

#include <openssl/md5.h>

#include <array>
#include <cstdio>
#include <cstdlib>

std::string md5Hex(std::string_view text) {
    std::array<unsigned char, MD5_DIGEST_LENGTH> digest = {};
    MD5_CTX context;
    MD5_Init(&context);
    MD5_Update(&context, text.data(), text.size());
    MD5_Final(digest.data(), &context);

    std::string hex;
    hex.reserve(2 * digest.size());
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
        hex += digits;
    }
    return hex;
}

std::string randomToken() {
    char decimal[24];
    const int length = std::snprintf(decimal, sizeof decimal, "%016u", static_cast<unsigned>(std::rand()));
    return md5Hex({decimal, static_cast<std::size_t>(length)});
}
