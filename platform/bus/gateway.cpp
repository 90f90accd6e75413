// How the gateway behaves when values change: its client towards the application server, its addresses.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/bus/bus.h"

static constexpr char KGatewayClient[] = "OrvoService.GatewayClient";
static constexpr char KConnectionMode[] = "ConnectionMode";
static constexpr char KConnectionStatus[] = "ConnectionStatus";
static constexpr char KSimulation[] = "Simulation.GatewayClient";
static constexpr long KConnectMilliseconds = 300;
static constexpr long KLongestMilliseconds = 3600L * 1000;

static event* connectTimer = nullptr;

static parameter_t* find(const char* path, const char* parameter) {
    object_t* object = findObject(iBus.tree, path);
    return object ? object_getParameter(object, parameter) : nullptr;
}

const char* valueOf(const char* path, const char* parameter) {
    const parameter_t* found = find(path, parameter);
    return found ? found->text() : nullptr;
}

long millisecondsOf(const char* path, const char* parameter, long otherwise) {
    const char* text = textOrEmpty(valueOf(path, parameter));
    char* end = nullptr;
    const long number = strtol(text, &end, 10);
    const bool usable = end != text && !*end && number >= 0;
    return usable ? std::min(number, KLongestMilliseconds) : otherwise;
}

bool holdsWord(const char* words, const char* word) {
    static constexpr char KDividers[] = " ,";
    const size_t length = strlen(word);
    while (*words) {
        words += strspn(words, KDividers);
        const size_t found = strcspn(words, KDividers);
        if (length && found == length && memcmp(words, word, length) == 0) return true;
        words += found;
    }
    return false;
}

void changeValueOf(const char* path, const char* parameter, const char* text) {
    parameter_t* found = find(path, parameter);
    if (found && !changeValue(findObject(iBus.tree, path), found, text)) {
        fprintf(stderr, "pcb-bus: cannot change %s.%s: memory is short\n", path, parameter);
    }
}

static void setConnectionStatus(const char* text) {
    const char* status = valueOf(KGatewayClient, KConnectionStatus);
    if (!status || strcmp(status, text) == 0) return;
    changeValueOf(KGatewayClient, KConnectionStatus, text);
}

static void connectGatewayClient(evutil_socket_t, short, void*) { setConnectionStatus("true"); }

// The GatewayClient connects a moment after it is told to, and leaves at once.
static void followConnectionMode() {
    const bool wanted = strcmp(textOrEmpty(valueOf(KGatewayClient, KConnectionMode)), "on") == 0 &&
                        isDataModelTrue(valueOf(KSimulation, "Connects") ? valueOf(KSimulation, "Connects") : "true");
    if (!wanted) {
        event_del(connectTimer);
        return setConnectionStatus("false");
    }
    if (isDataModelTrue(valueOf(KGatewayClient, KConnectionStatus)) ||
        event_pending(connectTimer, EV_TIMEOUT, nullptr)) {
        return;
    }
    const long delay = millisecondsOf(KSimulation, "ConnectDelay", KConnectMilliseconds);
    const timeval time = {delay / 1000, delay % 1000 * 1000};
    event_add(connectTimer, &time);
}

static void reportConnectionStatus() {
    printf("pcb-bus: ConnectionStatus %s\n", valueOf(KGatewayClient, KConnectionStatus));
}

// Parameters whose change makes the gateway do something.
static constexpr struct {
    const char *path, *parameter;
    void (*react)();
} KReactions[] = {
    {KGatewayClient,         KConnectionMode,   followConnectionMode  },
    {KGatewayClient,         KConnectionStatus, reportConnectionStatus},
    {KSimulation,            "Connects",        followConnectionMode  },
    {"Simulation.Functions", "Delay",           serveDueCalls         },
    {"NeMo.Intf.data",       "Addresses",       updateQueries         },
};

bool changeValue(object_t* object, parameter_t* parameter, const char* text) {
    if (strcmp(parameter->text(), text) == 0) return true;
    const OwnedText path = objectPath(object);
    const OwnedText before = copyText(parameter->text());
    if (!path || !before || !setParameterText(parameter, text)) return false;
    const char* name = parameter->name.get();
    notifyChange(path.get(), name, before.get(), text);
    for (const auto& row : KReactions) {
        if (strcmp(row.path, path.get()) == 0 && strcmp(row.parameter, name) == 0) row.react();
    }
    return true;
}

bool startGateway() {
    connectTimer = evtimer_new(iBus.base, connectGatewayClient, nullptr);
    if (!connectTimer) return false;
    // A definition may say that the connection was made already; it is left alone until the mode changes.
    if (strcmp(textOrEmpty(valueOf(KGatewayClient, KConnectionMode)), "on") == 0) followConnectionMode();
    return true;
}

void stopGateway() {
    if (connectTimer) event_free(connectTimer);
}
