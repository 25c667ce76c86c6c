#include "bench/peers/relay_common.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>

namespace zenk_bench {

std::optional<Endpoint> parsePath(std::string_view path) {
    const bool isRemote = path.starts_with("/remote/");
    const std::string_view prefix = isRemote ? "/remote/hbbtv/" : "/local/hbbtv/";
    if (!path.starts_with(prefix) || path.find('/', prefix.size()) == std::string_view::npos) return std::nullopt;
    return Endpoint{std::string(path.substr(prefix.size())), isRemote};
}

std::string acceptValue(std::string_view key) {
    const std::string text = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestBytes = 0;
    EVP_Digest(text.data(), text.size(), digest, &digestBytes, EVP_sha1(), nullptr);
    unsigned char base64[2 * EVP_MAX_MD_SIZE];
    const int length = EVP_EncodeBlock(base64, digest, static_cast<int>(digestBytes));
    return {reinterpret_cast<const char*>(base64), static_cast<std::size_t>(length)};
}

std::uint16_t portFrom(int argc, char** argv) {
    const long port = argc == 3 && std::string_view(argv[1]) == "--port" ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port > 0 && port <= 0xffff) return static_cast<std::uint16_t>(port);
    std::fprintf(stderr, "usage: %s --port N\n", argv[0]);
    std::exit(2);
}

void announceReady() {
    std::puts("ready");
    std::fflush(stdout);
}

}  // namespace zenk_bench
