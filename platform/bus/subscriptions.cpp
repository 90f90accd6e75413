// Who watches what.
#include <algorithm>

#include "platform/bus/bus.h"

namespace {

struct Subscription {
    Client* client = nullptr;
    uint64_t id = 0;
    uint32_t flags = 0;
    int depth = -1;
    OwnedText path;
    Subscription* next = nullptr;
};

}  // namespace

// In the order in which they were made, which is the order in which a client hears of a change.
static Subscription* firstSubscription = nullptr;

// A depth beyond the deepest tree means all, as -1 does.
static int depthOf(const cJSON* frame) {
    const cJSON* depth = cJSON_GetObjectItemCaseSensitive(frame, KWireDepth);
    return cJSON_IsNumber(depth) ? std::clamp(depth->valueint, -1, KMaxDepth) : -1;
}

static OwnedJson firstAnswer(uint64_t id, uint32_t flags, const char* path, int depth) {
    OwnedJson answer = newAnswer(id);
    if (!answer || !(flags & REQUEST_OBJECT)) return answer;
    const object_t* object = findObject(iBus.tree, path);
    const int delivered = flags & REQUEST_SUB_OBJECTS ? depth : 0;
    return addJson(answer.get(), KWireObject, objectToJson(object, delivered)) ? std::move(answer) : nullptr;
}

void subscribe(Client* client, uint64_t id, const cJSON* frame) {
    const auto flags = static_cast<uint32_t>(jsonCount(frame, KWireFlags));
    const char* path = jsonText(frame, KWirePath);
    auto subscription = newRecord<Subscription>();
    if (subscription) subscription->path = copyText(path);
    if (!subscription || !subscription->path) return sendError(client, id, PCB_ERROR_NO_MEMORY, path, nullptr);
    subscription->client = client;
    subscription->id = id;
    subscription->flags = flags;
    subscription->depth = depthOf(frame);
    // A client that gets an error instead of the answer knows that the request has ended.
    const bool answered = sendFrame(client, id, firstAnswer(id, flags, path, subscription->depth));
    const bool onlyObject = flags & REQUEST_OBJECT && !(flags & REQUEST_STAYS);
    if (!answered || onlyObject) return;
    Subscription** end = &firstSubscription;
    while (*end) {
        end = &(*end)->next;
    }
    *end = subscription.release();
}

template <class Condition>
static void removeIf(const Condition& condition) {
    for (Subscription** link = &firstSubscription; *link;) {
        Subscription* subscription = *link;
        if (!condition(subscription)) {
            link = &subscription->next;
            continue;
        }
        *link = subscription->next;
        const OwnedRecord<Subscription> released(subscription);
    }
}

void cancelSubscription(const Client* client, uint64_t id) {
    removeIf(
        [&](const Subscription* subscription) { return subscription->client == client && subscription->id == id; });
}

void cancelSubscriptions(const Client* client) {
    removeIf([&](const Subscription* subscription) { return subscription->client == client; });
}

// Whether `path` is what a subscription is for: its object, or one at most so many levels below it.
static bool covers(const Subscription* subscription, std::string_view path) {
    const std::string_view top = subscription->path.get();
    if (path == top) return true;
    if (!top.empty() && (path.substr(0, top.size()) != top || path[top.size()] != '.')) return false;
    if (subscription->depth < 0) return true;
    return std::count(path.begin(), path.end(), '.') - std::count(top.begin(), top.end(), '.') +
               (top.empty() ? 1 : 0) <=
           subscription->depth;
}

static OwnedJson notification(uint64_t id, int type, const char* path, std::initializer_list<const char*> parameters) {
    OwnedJson frame = newAnswer(id);
    if (!frame || !cJSON_AddNumberToObject(frame.get(), KWireNotification, type) ||
        !addJsonText(frame.get(), KWirePath, path)) {
        return nullptr;
    }
    cJSON* texts = cJSON_AddArrayToObject(frame.get(), KWireParameters);
    for (const char* parameter : parameters) {
        cJSON* text = texts ? cJSON_CreateString(parameter) : nullptr;
        if (!text) return nullptr;
        cJSON_AddItemToArray(texts, text);
    }
    return frame;
}

static void notifyAll(uint32_t flags, int type, const char* path, std::initializer_list<const char*> parameters) {
    for (const Subscription* subscription = firstSubscription; subscription; subscription = subscription->next) {
        if (!(subscription->flags & flags) || !covers(subscription, path)) continue;
        sendFrame(subscription->client, subscription->id, notification(subscription->id, type, path, parameters));
    }
}

void notifyChange(const char* path, const char* parameter, const char* oldText, const char* newText) {
    notifyAll(REQUEST_VALUE_CHANGES | REQUEST_CHANGES_ONLY, NOTIFICATION_VALUE_CHANGED, path,
              {parameter, oldText, newText});
}

void notifyCustom(const char* path, const char* value) {
    notifyAll(REQUEST_CUSTOM, NOTIFICATION_CUSTOM, path, {value});
}
