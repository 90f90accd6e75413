// pcb-ctl: reads, sets, lists and watches the data model, and calls its functions, from a shell.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/json/json.h"
#include "platform/pcb/pcb.h"

static constexpr char KUsage[] =
    "usage: pcb-ctl [--socket PATH] get OBJECT PARAMETER | set OBJECT PARAMETER VALUE | ls [OBJECT] | watch OBJECT | "
    "call OBJECT FUNCTION [NAME=VALUE ...]";
static constexpr char KDefaultSocket[] = "/var/run/pcb_sys";
static constexpr time_t KCallSeconds = 60;

namespace {

using OwnedClient = Owned<pcb_t, pcb_destroy>;
using OwnedRequest = Owned<request_t, request_destroy>;

/// A variant that holds a text.
struct TextValue {
    variant_t variant;
    bool set;

    explicit TextValue(const char* text)
        : variant{}, set(variant_initialize(&variant) && variant_setChar(&variant, text)) {}
    TextValue(const TextValue&) = delete;
    TextValue& operator=(const TextValue&) = delete;
    ~TextValue() { variant_cleanup(&variant); }
};

struct Session {
    pcb_t* client;
    peer_info_t* peer;
};

}  // namespace

// What the handlers of the one request have seen.
static bool answered = false;
static bool failed = false;

static bool complain(const char* what, const char* detail, const char* reason) {
    fprintf(stderr, "pcb-ctl: %s%s%s: %s\n", what, detail ? "." : "", textOrEmpty(detail), reason);
    return false;
}

static bool complainOfOutput() { return complain("standard output", nullptr, strerror(errno)); }

static bool flushOutput() { return (fflush(stdout) == 0 && !ferror(stdout)) || complainOfOutput(); }

static bool print(const char* text) { return puts(text) < 0 ? complainOfOutput() : flushOutput(); }

static bool get(const Session& session, char** words, int) {
    const variant_t* value = pcb_client_get(session.peer, words[0], words[1]);
    const OwnedText text(value ? variant_char(value) : nullptr);
    if (!text) return complain(words[0], words[1], error_string(pcb_error));
    return print(text.get());
}

static bool set(const Session& session, char** words, int) {
    const TextValue value(words[2]);
    return (value.set && pcb_client_set(session.peer, words[0], words[1], &value.variant)) ||
           complain(words[0], words[1], error_string(pcb_error));
}

static bool list(object_t* object) {
    const OwnedText path(object_pathChar(object, 0));
    if (!path) return complain("ls", nullptr, error_string(pcb_error));
    for (parameter_t* parameter = object_firstParameter(object); parameter;
         parameter = object_nextParameter(parameter)) {
        const OwnedText value(variant_char(parameter_getValue(parameter)));
        if (!value) return complain(path.get(), parameter_name(parameter), error_string(pcb_error));
        if (printf("%s.%s=%s\n", path.get(), parameter_name(parameter), value.get()) < 0) return complainOfOutput();
    }
    for (object_t* child = object_firstChild(object); child; child = object_nextSibling(child)) {
        if (!list(child)) return false;
    }
    return true;
}

static bool ls(const Session& session, char** words, int count) {
    const char* path = count ? words[0] : "";
    object_t* object = pcb_client_get_object(session.peer, path, 0);
    return object ? list(object) && flushOutput() : complain(path, nullptr, error_string(pcb_error));
}

static void reportError(request_t* request, reply_item_t* item) {
    failed = true;
    complain(request_path(request), request_functionName(request), reply_item_errorDescription(item));
}

// Waits for events and handles them until `answered` or `failed`, the process is to end, or the time (null: none) is
// over.
[[nodiscard]] static bool handleEvents(const Session& session, timeval* rest) {
    llist_t connections;
    llist_initialize(&connections);
    llist_append(&connections, connection_listLink(pcb_connection(session.client)));
    int ready = 1;
    while (ready > 0 && !answered && !failed && !connection_isTerminated()) {
        fd_set readSet;
        fd_set writeSet;
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        ready = rest ? connection_waitForEvents(&connections, rest)
                     : connection_waitForEvents_r(&connections, &readSet, &writeSet);
        if (ready > 0) connection_handleEvents(&connections);
    }
    llist_cleanup(&connections);
    return answered && !failed;
}

static int printChange(request_t* request, reply_item_t* item) {
    if (failed) return 1;
    if (reply_item_type(item) == REPLY_ITEM_ERROR) reportError(request, item);
    if (reply_item_type(item) == REPLY_ITEM_OBJECT) fprintf(stderr, "watching %s\n", request_path(request));
    if (reply_item_type(item) != REPLY_ITEM_NOTIFICATION) return 1;
    notification_t* notification = reply_item_notification(item);
    notification_parameter_t* name = notification_firstParameter(notification);
    notification_parameter_t* before = name ? notification_nextParameter(name) : nullptr;
    notification_parameter_t* after = before ? notification_nextParameter(before) : nullptr;
    if (!after) return 1;
    const bool printed =
        printf("%s %s %s -> %s\n", notification_objectPath(notification), notification_parameter_value(name),
               notification_parameter_value(before), notification_parameter_value(after)) >= 0;
    failed = !(printed ? flushOutput() : complainOfOutput());
    return 1;
}

static bool watch(const Session& session, char** words, int) {
    const OwnedRequest request(request_create_getObject(words[0], -1, REQUEST_WATCH));
    if (!request || !request_setReplyItemHandler(request.get(), printChange) ||
        !pcb_sendRequest(session.client, session.peer, request.get())) {
        return complain(words[0], nullptr, error_string(pcb_error));
    }
    (void)handleEvents(session, nullptr);
    if (failed) return false;
    return complain(words[0], nullptr, error_string(PCB_ERROR_CONNECTION_LOST));
}

static bool addMember(cJSON* object, const char* name, const variant_t* value) {
    const OwnedText text(value ? variant_char(value) : nullptr);
    return text ? cJSON_AddStringToObject(object, name, text.get()) : cJSON_AddNullToObject(object, name);
}

static bool printResult(reply_item_t* item) {
    const OwnedJson result(cJSON_CreateObject());
    bool complete = result && addMember(result.get(), "returns", reply_item_returnValue(item));
    argument_value_list_t* arguments = reply_item_returnArguments(item);
    argument_value_t* argument = arguments ? argument_valueFirstArgument(arguments) : nullptr;
    for (; argument && complete; argument = argument_valueNextArgument(argument)) {
        complete = addMember(result.get(), argument_valueName(argument), argument_value(argument));
    }
    const OwnedText text = complete ? printJson(result.get()) : nullptr;
    return text ? print(text.get()) : complain("call", nullptr, error_string(PCB_ERROR_NO_MEMORY));
}

static int takeReturn(request_t* request, reply_item_t* item) {
    if (reply_item_type(item) == REPLY_ITEM_ERROR) {
        reportError(request, item);
    } else {
        answered = true;
        if (!printResult(item)) failed = true;
    }
    return 1;
}

static bool addArgument(request_t* request, char* word) {
    char* divider = strchr(word, '=');
    if (!divider) return complain(word, nullptr, "an argument is NAME=VALUE");
    TextValue value(divider + 1);
    *divider = '\0';
    return (value.set && request_addParameter(request, word, &value.variant)) ||
           complain(word, nullptr, error_string(pcb_error));
}

static bool call(const Session& session, char** words, int count) {
    const OwnedRequest request(request_create_executeFunction(words[0], words[1], REQUEST_FUNCTION_ASYNCHRONOUS));
    if (!request) return complain(words[0], words[1], error_string(pcb_error));
    for (int i = 2; i < count; ++i) {
        if (!addArgument(request.get(), words[i])) return false;
    }
    request_setReplyItemHandler(request.get(), takeReturn);
    if (!pcb_sendRequest(session.client, session.peer, request.get())) {
        return complain(words[0], words[1], error_string(pcb_error));
    }
    timeval rest = {KCallSeconds, 0};
    if (handleEvents(session, &rest)) return true;
    return failed ? false : complain(words[0], words[1], "no answer");
}

static constexpr struct {
    const char* name;
    int least, most;  // words after it
    bool (*run)(const Session& session, char** words, int count);
} KCommands[] = {
    {"get",   2, 2,   get  },
    {"set",   3, 3,   set  },
    {"ls",    0, 1,   ls   },
    {"watch", 1, 1,   watch},
    {"call",  2, 100, call },
};

static bool runCommand(const char* socketPath, char** words, int count) {
    for (const auto& command : KCommands) {
        if (strcmp(command.name, words[0]) != 0 || count - 1 < command.least || count - 1 > command.most) continue;
        const OwnedText uri = formatText("pcb://ipc:{%s}", socketPath);
        const OwnedClient client(pcb_create("pcb-ctl", 0, nullptr));
        if (!uri || !client || !connection_initLibrary()) return complain("start", nullptr, error_string(pcb_error));
        (void)pcb_client_set_attribute(client.get(), PCB_CLIENT_PLATFORM, 1);
        peer_info_t* peer = pcb_client_connect(client.get(), uri.get());
        if (!peer) return complain(socketPath, nullptr, error_string(pcb_error));
        return command.run({client.get(), peer}, words + 1, count - 1);
    }
    fprintf(stderr, "%s\n", KUsage);
    return false;
}

// Opens /dev/null for closed standard streams. Otherwise the socket could get such a number, and output would go to the
// bus. It is opened for reading, so that writing still fails.
static void fillStandardStreams() {
    int file = 0;
    while (file >= 0 && file <= STDERR_FILENO) {
        file = open("/dev/null", O_RDONLY);
    }
    if (file >= 0) close(file);
}

int main(int count, char** words) {
    fillStandardStreams();
    const char* socketPath = KDefaultSocket;
    ++words;
    --count;
    if (count >= 2 && strcmp(words[0], "--socket") == 0) {
        socketPath = words[1];
        words += 2;
        count -= 2;
    }
    char none[] = "";
    char* noWords[] = {none};
    return runCommand(socketPath, count > 0 ? words : noWords, count > 0 ? count : 1) ? 0 : 1;
}
