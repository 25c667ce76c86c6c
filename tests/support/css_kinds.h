#pragma once

#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {

/// The two companion-screen servers under one set of names, for typed tests.
struct Cii {
    using Server = ZenkCSSCIIServer;
    static constexpr unsigned kNew = CSS_EVENT_CII_NEW_CLIENT;
    static constexpr const char* kUri = "/css-cii";
    static constexpr auto kAdd = &Server::addCiiClientId;
    static constexpr auto kRemove = &Server::removeCiiClientId;
    static constexpr auto kExists = &Server::ciiClientIdExists;
    static constexpr auto kRegister = &Server::registerCIIEventCallback;
    static constexpr auto kUnregister = &Server::unRegisterCIIEventCallback;
    static constexpr auto kEndpoint = &Server::getCssCiiEndpoint;
};
struct Ts {
    using Server = ZenkCSSTSServer;
    static constexpr unsigned kNew = CSS_EVENT_TS_NEW_CLIENT;
    static constexpr const char* kUri = "/css-ts";
    static constexpr auto kAdd = &Server::addTsClientId;
    static constexpr auto kRemove = &Server::removeTsClientId;
    static constexpr auto kExists = &Server::tsClientIdExists;
    static constexpr auto kRegister = &Server::registerTSEventCallback;
    static constexpr auto kUnregister = &Server::unRegisterTSEventCallback;
    static constexpr auto kEndpoint = &Server::getCssTsEndpoint;
};

}  // namespace zenk_test
