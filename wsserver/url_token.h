#pragma once

#include <string>
#include <string_view>

/// MD5 digest (RFC 1321) of `text` as 32 lower-case hexadecimal digits. It only spreads a number over a token; nothing
/// rests on its strength.
std::string md5Hex(std::string_view text);

/// 32 hexadecimal digits, drawn with rand().
std::string randomToken();
