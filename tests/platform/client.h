// What the platform's tests share: a connected client, watches that write down what arrives, and raw connections.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/pcb/pcb.h"
#include "tests/world/world.h"

inline std::string textOf(const variant_t* variant) {
    char* text = variant_char(variant);
    std::string copy = text ? text : "(none)";
    free(text);
    return copy;
}

struct Client {
    pcb_t* pcb;
    peer_info_t* peer;

    explicit Client(const std::string& path = "/var/run/pcb_sys", bool platform = false)
        : pcb((connection_initLibrary(), pcb_create("test", 0, nullptr))) {
        if (platform) pcb_client_set_attribute(pcb, PCB_CLIENT_PLATFORM, 1);
        peer = pcb_client_connect(pcb, ("pcb://ipc:{" + path + "}").c_str());
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { pcb_destroy(pcb); }

    std::string get(const char* path, const char* parameter) const {
        const variant_t* value = pcb_client_get(peer, path, parameter);
        return value ? textOf(value) : "error: " + std::string(error_string(pcb_client_error(pcb)));
    }
    /// 0, or the error.
    uint32_t set(const char* path, const char* parameter, const std::string& text) const {
        variant_t value;
        variant_initialize(&value);
        variant_setChar(&value, text.c_str());
        const bool done = pcb_client_set(peer, path, parameter, &value);
        variant_cleanup(&value);
        return done ? 0 : pcb_client_error(pcb);
    }
    /// Runs the event loop until `done` holds; false when the loop must end before. What never comes ends the test.
    bool loopUntil(const std::function<bool()>& done) const {
        alarm(40);
        llist_t list;
        llist_initialize(&list);
        llist_append(&list, connection_listLink(pcb_connection(pcb)));
        while (!done() && !connection_isTerminated()) {
            fd_set readSet, writeSet;
            if (connection_waitForEvents_r(&list, &readSet, &writeSet) > 0) {
                connection_handleEvents_r(&list, &readSet, &writeSet);
            }
        }
        llist_cleanup(&list);
        alarm(0);
        return done();
    }
};

/// A request that writes down what arrives for it, one text an item.
struct Watch {
    request_t* request;
    std::vector<std::string> items;
    std::function<void()> onItem;

    Watch(const Client& client, const char* path, uint32_t flags = REQUEST_WATCH)
        : Watch(client, request_create_getObject(path, -1, flags)) {}
    Watch(const Client& client, request_t* prepared) : request(prepared) {
        byRequest()[request] = this;
        request_setReplyItemHandler(request, takeItem);
        EXPECT_TRUE(pcb_sendRequest(client.pcb, client.peer, request));
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { end(); }
    void end() {
        byRequest().erase(request);
        request_destroy(request);
        request = nullptr;
    }

  private:
    static std::map<request_t*, Watch*>& byRequest() {
        static auto* watches = new std::map<request_t*, Watch*>;
        return *watches;
    }
    static int takeItem(request_t* request, reply_item_t* item) {
        Watch* watch = byRequest().at(request);
        watch->items.push_back(describe(item));
        if (watch->onItem) watch->onItem();
        return 1;
    }
    static std::string describe(reply_item_t* item) {
        std::string text;
        if (object_t* object = reply_item_object(item)) {
            char* path = object_pathChar(object, 0);
            text = "object " + std::string(path);
            free(path);
            for (parameter_t* each = object_firstParameter(object); each; each = object_nextParameter(each)) {
                text += std::string(" ") + parameter_name(each) + "=" + textOf(parameter_getValue(each));
            }
        } else if (notification_t* notification = reply_item_notification(item)) {
            text = std::to_string(notification_type(notification)) + " " + notification_objectPath(notification);
            notification_parameter_t* each = notification_firstParameter(notification);
            for (; each; each = notification_nextParameter(each)) {
                text += std::string(" ") + notification_parameter_value(each);
            }
        } else if (reply_item_type(item) == REPLY_ITEM_ERROR) {
            text = "error " + std::string(error_string(static_cast<uint32_t>(reply_item_error(item)))) + ": " +
                   reply_item_errorDescription(item) + ": " + reply_item_errorInfo(item);
        } else {
            text = "returns " + textOf(reply_item_returnValue(item));
        }
        return text;
    }
};

/// A connection that can send anything.
struct RawConnection {
    int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    RawConnection() {
        sockaddr_un address{AF_UNIX, "/var/run/pcb_sys"};
        EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;
    ~RawConnection() { close(socket); }
    /// Whether all of it was taken.
    bool send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) return false;
            bytes.remove_prefix(static_cast<size_t>(count));
        }
        return true;
    }
    /// What comes until `end` was read or the other side closes.
    std::string receiveUntil(std::string_view end) const {
        std::string all;
        char bytes[4096];
        ssize_t count = 0;
        while (all.find(end) == std::string::npos && (count = recv(socket, bytes, sizeof bytes, 0)) > 0) {
            all.append(bytes, static_cast<size_t>(count));
        }
        return all;
    }
};
