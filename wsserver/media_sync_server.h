#pragma once

#include <map>
#include <string>
#include <vector>

#include "log/zenk_export.h"
#include "wsserver/websocket_service.h"

class MediaSyncServer;

class ZENK_API ClientObserver {
public:
    ClientObserver();
    virtual void onNewClient(char* uri, int clientId);
    virtual void onMessage(unsigned char* message, int length, int clientId);
    virtual void onClientLeave(int clientId);
    virtual int getCssServerStatus();
    virtual ~ClientObserver();

    void sendMessage(char* message, int length, int clientId);
    void sendMessageAll(char* message, int length, int clientId);
    void closeClientConnection(int clientId);
    const char* getUrl(int clientId);
    bool copyUrl(int clientId, std::string& url);

    MediaSyncServer* m_server;
};

struct _pairedApp;

class ZENK_API MediaSyncServer : public Client {
public:
    MediaSyncServer();
    int onFilterConnection() override;
    void onConnect() override;
    void onMessage(unsigned char* message, int length, bool binary) override;
    int onClose() override;
    ~MediaSyncServer() override;

    static MediaSyncServer* getInstance();
    void addObserver(ClientObserver* observer);
    void removeObserver(ClientObserver* observer);

    int observerSendMessage(char* message, int length, int clientId);
    int observerSendMessageAll(char* message, int length, int clientId);
    void observerCloseClientConnection(int clientId);
    bool copyUrl(int clientId, std::string& url);

    int handlePairingConnection(const std::string& uri, int socketFd, lws* wsi);
    int handlePairingMsg(unsigned char* message, int length, int socketFd, bool binary);
    int handlePairingClose(int socketFd);

    static void createRandom();
    void getApp2AppLocalBaseUrl(std::string& url);
    void getApp2AppRemoteBaseUrl(std::string& url);
    void getInterDevSyncUrl(std::string& url);
    void getCssTsEndpoint(std::string& url);

    static MediaSyncServer* m_instance;
    int m_port;
    bool enablePairing;
};

ZENK_API int getLocalIpAddr(char* ip_addr, int len);
