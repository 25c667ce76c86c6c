#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/recording_websockets.h"

namespace zenk_test {

using Actions = std::vector<Action>;

inline Action text(lws* wsi, const std::string& bytes) {
    return {Action::kWrite, wsi, 0, bytes};
}
inline Action goodbye(lws* wsi) {
    return {Action::kClose, wsi, 1000, ""};
}

/// The rules written as plain walks over the list.
struct PlainPairing {
    struct Record {
        std::string endpoint;
        int fd[2] = {0, 0};
        lws* wsi[2] = {nullptr, nullptr};
        bool isPaired = false;
    };
    std::vector<Record> list;
    Actions actions;
    bool isEnabled = true;

    void connect(const std::string& endpoint, int side, int fd, lws* wsi) {
        if (fd == 0) return;  // stands for an absent side
        for (Record& r : list) {
            if (r.endpoint != endpoint || r.isPaired || r.fd[1 - side] == 0 || r.wsi[1 - side] == nullptr) continue;
            r.isPaired = true;
            r.fd[side] = fd;
            r.wsi[side] = wsi;
            if (!isEnabled) return;
            for (lws* each : r.wsi) actions.push_back(text(each, "pairingcompleted"));
            return;
        }
        Record& r = list.emplace_back();
        r.endpoint = endpoint;
        r.fd[side] = fd;
        r.wsi[side] = wsi;
    }
    std::vector<Record>::iterator find(int fd) {
        if (fd == 0) return list.end();
        return std::find_if(list.begin(), list.end(), [fd](Record& r) { return r.fd[0] == fd || r.fd[1] == fd; });
    }
    int message(int fd, const std::string& bytes, bool binary) {
        const auto r = find(fd);
        if (r == list.end()) return 0;
        for (const int to : {1, 0}) {
            if (!isEnabled || r->fd[1 - to] != fd || r->wsi[to] == nullptr) continue;
            actions.push_back({Action::kWrite, r->wsi[to], binary ? 1 : 0, bytes});
        }
        return 1;
    }
    int close(int fd) {
        const auto r = find(fd);
        if (r == list.end()) return 0;
        const int side = r->fd[0] == fd ? 0 : 1;
        if ((r->fd[0] == fd && r->wsi[1] == nullptr) || (r->fd[1] == fd && r->wsi[0] == nullptr)) {
            list.erase(r);
            return 1;
        }
        r->fd[side] = 0;
        r->wsi[side] = nullptr;
        r->isPaired = false;
        actions.push_back(goodbye(r->wsi[1 - side]));
        return 1;
    }
};

}  // namespace zenk_test
