#include "wsserver/url_token.h"

#include <openssl/md5.h>

#include <array>
#include <cstdio>
#include <cstdlib>

std::string md5Hex(std::string_view text) {
    std::array<unsigned char, MD5_DIGEST_LENGTH> digest = {};
    MD5(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());

    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * digest.size());
    for (const unsigned char byte : digest) hex.append({kDigits[byte >> 4], kDigits[byte & 0xF]});
    return hex;
}

std::string randomToken() {
    char decimal[24];
    const int length = std::snprintf(decimal, sizeof decimal, "%016u", static_cast<unsigned>(std::rand()));
    return md5Hex({decimal, static_cast<std::size_t>(length)});
}
