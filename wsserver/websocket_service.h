#pragma once

#include <cstddef>
#include <cstdint>

#include "log/zenk_export.h"

struct lws;

inline constexpr std::size_t kSessionHeadroom = 16;
inline constexpr std::size_t kMaxMessageBytes = 131072;

struct ClientSessionData {
    std::uint32_t rx;
    std::uint32_t tx;
    unsigned char buf[kSessionHeadroom + kMaxMessageBytes];
    std::int32_t len;
    std::int32_t final;
    std::int32_t continuation;
    std::int32_t binary;
};

class ZENK_API Client {
public:
    virtual int onFilterConnection();
    virtual void onConnect();
    virtual void onMessage(unsigned char* message, int length, bool binary);
    virtual int onClose();
    virtual ~Client();

    lws* m_wsi;
    ClientSessionData* m_sessionData;
    int m_socketFd;
};

ZENK_API int startWebSocketServer(int port, Client* client);
ZENK_API void sighandler(int signal);
