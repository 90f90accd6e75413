// What the platform's tests share: a running bus and a connected client, requests that write down what arrives, and
// the two ends that keep to no rules.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/pcb/pcb.h"
#include "tests/world/world.h"

using Items = std::vector<std::string>;

inline constexpr char KDynDns[] = "OrvoService.DynDNS";

/// The text, which is released.
inline std::string take(char* text) {
    std::string copy = text ? text : "(none)";
    free(text);
    return copy;
}

inline std::string everyByte() {
    std::string bytes(255, '\1');
    std::iota(bytes.begin(), bytes.end(), '\1');
    return bytes;
}

struct Client {
    pcb_t* pcb;
    peer_info_t* peer;

    explicit Client(const std::string& path = "/var/run/pcb_sys", bool platform = false)
        : pcb((connection_initLibrary(), pcb_create("test", 0, nullptr))) {
        if (platform) pcb_client_set_attribute(pcb, PCB_CLIENT_PLATFORM, 1);
        peer = pcb_client_connect(pcb, ("pcb://ipc:{" + path + "}").c_str());
    }
    ~Client() { pcb_destroy(pcb); }

    /// What the last failed operation says.
    std::string error() const { return error_string(pcb_client_error(pcb)); }
    std::string get(const char* path, const char* parameter) const {
        const variant_t* value = pcb_client_get(peer, path, parameter);
        return value ? take(variant_char(value)) : "error: " + error();
    }
    /// "done", or the error.
    std::string set(const char* path, const char* parameter, const std::string& value) const {
        variant_t variant;
        variant_initialize(&variant);
        variant_setChar(&variant, value.c_str());
        const bool done = pcb_client_set(peer, path, parameter, &variant);
        variant_cleanup(&variant);
        return done ? "done" : error();
    }
    /// Runs the event loop until `done` holds; false when the loop must end before.
    bool loopUntil(const std::function<bool()>& done) const {
        llist_t list;
        llist_initialize(&list);
        llist_append(&list, connection_listLink(pcb_connection(pcb)));
        fd_set readSet, writeSet;
        while (!done() && !connection_isTerminated()) {
            const int ready = connection_waitForEvents_r(&list, &readSet, &writeSet);
            if (ready > 0) connection_handleEvents_r(&list, &readSet, &writeSet);
        }
        llist_cleanup(&list);
        return done();
    }
};

/// A request that writes down what arrives for it, one text an item.
struct Watch {
    const Client& client;
    request_t* request;
    Items items;
    std::function<void()> onItem = [] {};

    Watch(const Client& sender, const char* path, uint32_t flags = REQUEST_WATCH)
        : Watch(sender, request_create_getObject(path, -1, flags)) {}
    Watch(const Client& sender, request_t* prepared) : client(sender), request(prepared) {
        byRequest[request] = this;
        request_setReplyItemHandler(request, takeItem);
        EXPECT_TRUE(pcb_sendRequest(client.pcb, client.peer, request));
    }
    ~Watch() { end(); }
    void end() {
        byRequest.erase(request);
        request_destroy(request);
        request = nullptr;
    }
    /// Runs the client's event loop until so many items are there.
    const Items& await(size_t count) const {
        EXPECT_TRUE(client.loopUntil([&] { return items.size() >= count; }));
        return items;
    }

  private:
    static inline auto& byRequest = *new std::map<request_t*, Watch*>;

    static int takeItem(request_t* request, reply_item_t* item) {
        Watch* watch = byRequest.at(request);
        watch->items.push_back(describe(item));
        watch->onItem();
        return 1;
    }
    static std::string describe(reply_item_t* item) {
        std::string text;
        if (object_t* object = reply_item_object(item)) {
            text = "object " + take(object_pathChar(object, 0));
            for (parameter_t* each = object_firstParameter(object); each; each = object_nextParameter(each)) {
                text.append(" ").append(parameter_name(each)) += "=" + take(variant_char(parameter_getValue(each)));
            }
            return text;
        }
        if (notification_t* notification = reply_item_notification(item)) {
            text = std::to_string(notification_type(notification)) + " " + notification_objectPath(notification);
            notification_parameter_t* each = notification_firstParameter(notification);
            for (; each; each = notification_nextParameter(each)) {
                text.append(" ").append(notification_parameter_value(each));
            }
            return text;
        }
        if (reply_item_type(item) != REPLY_ITEM_ERROR)
            return "returns " + take(variant_char(reply_item_returnValue(item)));
        return std::string("error ") + reply_item_errorDescription(item) + ": " + reply_item_errorInfo(item);
    }
};

inline request_t* call(const char* path, const char* function) {
    return request_create_executeFunction(path, function, REQUEST_FUNCTION_ASYNCHRONOUS);
}

struct Platform : testing::Test {
    std::unique_ptr<world::Process> bus = world::startPcbBus();
    Client client;
};

/// A connection that can send anything.
struct RawConnection {
    int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    RawConnection() {
        sockaddr_un address{AF_UNIX, "/var/run/pcb_sys"};
        EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawConnection() { close(socket); }
    /// Whether all of it was taken; the bus may close the connection before.
    bool send(std::string_view bytes) const {
        return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    /// What comes until `end` was read or the other side closes.
    std::string receiveUntil(std::string_view end) const {
        std::string all;
        for (char byte = 0; !all.ends_with(end) && recv(socket, &byte, 1, 0) == 1;) {
            all += byte;
        }
        return all;
    }
};

/// Gets a value from a bus that greets its client, answers with anything and closes the connection; what came of it.
/// The client lives until `then` is done.
inline std::string askLiar(std::string_view answer, void (*then)() = nullptr) {
    sockaddr_un address{AF_UNIX, "/var/run/liar"};
    unlink(address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && listen(listener, 1) == 0);
    std::thread liar([&] {
        const int connection = accept(listener, nullptr, nullptr);
        char request[1000];
        for (const std::string_view text : {std::string_view("{\"id\":77,\"value\":\"x\"}\n{\"id\":1}\n"), answer}) {
            (void)!recv(connection, request, sizeof request, 0);
            (void)!send(connection, text.data(), text.size(), MSG_NOSIGNAL);
        }
        close(connection);
        close(listener);
    });
    const Client client(address.sun_path);
    std::string result = client.get("A", "B");
    liar.join();
    if (then) then();
    return result;
}
