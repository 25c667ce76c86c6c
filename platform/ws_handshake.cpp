#include "platform/ws_handshake.h"

#include <libwebsockets.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "platform/statuses.h"

namespace zenk_ws {

namespace {

constexpr int kEndConnection = -1;
// All header data of a request together is 4096 bytes at most.
constexpr std::size_t kMaxHeaderBytes = 4096;

/// Joins the pieces that libwebsockets has cut a header into at each '&'. Nothing when the header is absent.
std::optional<std::string> joinPieces(::lws* wsi, lws_token_indexes token, bool isQuery) {
    std::array<char, kMaxHeaderBytes + 2> piece;
    std::optional<std::string> whole;
    bool endsInSlashPiece = false;
    for (int i = 0;; ++i) {
        const int length = lws_hdr_copy_fragment(wsi, piece.data(), static_cast<int>(piece.size()), token, i);
        if (length < 0) break;
        const std::string_view text(piece.data(), static_cast<std::size_t>(length));
        if (i == 0) {
            whole.emplace(text);
        } else {
            whole->append("&").append(text);
        }
        endsInSlashPiece = text == "/";
    }
    // libwebsockets puts a "/" into a query's last piece where it is empty ("?", "a=1&").
    if (isQuery && endsInSlashPiece) whole->pop_back();
    return whole;
}

constexpr const char* kClose = "Connection: close\r\n";
constexpr const char* kCloseAllowGet = "Allow: GET\r\nConnection: close\r\n";
constexpr const char* kCloseUpgradeTo13 =
    "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\nConnection: Upgrade, close\r\n";

/// An answer of HTTP/1.1 without a body. The library's own call for this says HTTP/1.0 on an upgrade, which clients
/// take for a broken server.
int answer(::lws* wsi, const char* status, const char* headers, lws_write_protocol how) {
    std::array<unsigned char, LWS_PRE + 256> buffer;
    char* const text = reinterpret_cast<char*>(buffer.data()) + LWS_PRE;
    const int length =
        std::snprintf(text, buffer.size() - LWS_PRE, "HTTP/1.1 %s\r\n%sContent-Length: 0\r\n\r\n", status, headers);
    if (::lws_write(wsi, buffer.data() + LWS_PRE, static_cast<std::size_t>(length), how) < 0) {
        // The connection is ended either way.
    }
    return kEndConnection;
}

int answerHttp(::lws* wsi, const char* status, const char* headers = kClose) {
    return answer(wsi, status, headers, LWS_WRITE_HTTP_HEADERS);
}

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

/// The members of a header's list as RFC 9110, 5.6.1 has it: empty ones do not count, and neither does the white space
/// around them.
bool listHas(std::string_view list, std::string_view wanted) {
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        if (trimmed(list.substr(0, comma)) == wanted) return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

bool asksForVersion13(::lws* wsi) {
    std::array<char, 64> versions{};
    const int length = lws_hdr_copy(wsi, versions.data(), static_cast<int>(versions.size()), WSI_TOKEN_VERSION);
    return length > 0 && listHas(versions.data(), "13");
}

const char* reasonPhrase(int status) {
    switch (status) {
        case zenk::kHttpBadRequest:
            return "Bad Request";
        case zenk::kHttpForbidden:
            return "Forbidden";
        case zenk::kHttpNotFound:
            return "Not Found";
        case zenk::kHttpUnavailable:
            return "Service Unavailable";
        default:
            return "Refused";
    }
}

}  // namespace

RequestTarget readRequestTarget(::lws* wsi) {
    return {joinPieces(wsi, WSI_TOKEN_GET_URI, false), joinPieces(wsi, WSI_TOKEN_HTTP_URI_ARGS, true)};
}

int checkUpgrade(::lws* wsi, const char* upgradeTo) {
    // Lists of protocols do not come as far as here.
    if (upgradeTo == nullptr || ::strcasecmp(upgradeTo, "websocket") != 0) return answerHttp(wsi, "400 Bad Request");
    if (lws_hdr_total_length(wsi, WSI_TOKEN_GET_URI) <= 0) {
        return answerHttp(wsi, "405 Method Not Allowed", kCloseAllowGet);
    }
    if (!asksForVersion13(wsi)) return answerHttp(wsi, "426 Upgrade Required", kCloseUpgradeTo13);
    // Nobody here speaks a sub-protocol, and to accept one without speaking it would be a lie (RFC 6455, 4.2.2).
    if (lws_hdr_total_length(wsi, WSI_TOKEN_PROTOCOL) > 0) return answerHttp(wsi, "400 Bad Request");
    return 0;
}

int refuseHandshake(::lws* wsi, int result) {
    const int status = result >= 400 && result <= 599 ? result : zenk::kHttpForbidden;
    std::array<char, 64> line;
    std::snprintf(line.data(), line.size(), "%d %s", status, reasonPhrase(status));
    return answerHttp(wsi, line.data());
}

int refusePlainHttp(::lws* wsi) {
    return answerHttp(wsi, "426 Upgrade Required", kCloseUpgradeTo13);
}

int refuseRawConnection(::lws* wsi) {
    return answer(wsi, "405 Method Not Allowed", kCloseAllowGet, LWS_WRITE_RAW);
}

}  // namespace zenk_ws
