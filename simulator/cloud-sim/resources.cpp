#include "simulator/cloud-sim/resources.h"

#include <algorithm>
#include <string_view>

#include "common/json/json.h"

namespace cloudsim {

using httplib::Request;

static void refuse(Exchange& exchange, int status, const char* reason) {
    exchange.status = status;
    exchange.body = std::string("{\"status\":\"") + reason + "\"}";
}

static bool isFree(const State& state, const std::string& name, const std::string& exceptHaId) {
    return !state.takenNames.contains(name) &&
           std::none_of(state.registrations.begin(), state.registrations.end(),
                        [&](const auto& entry) { return entry.first != exceptHaId && entry.second.name == name; });
}

static void answerVerify(State& state, const Request& request, const std::string&, Exchange& exchange) {
    if (!request.has_param("name")) return refuse(exchange, 400, "BAD_REQUEST");
    const bool available = isFree(state, request.get_param_value("name"), "");
    exchange.body = std::string(R"({"status":"SUCCESS","available":)") + (available ? "true}" : "false}");
}

static void answerGet(State& state, const Request& request, const std::string&, Exchange& exchange) {
    if (!request.has_param("haId")) return refuse(exchange, 400, "BAD_REQUEST");
    const auto found = state.registrations.find(request.get_param_value("haId"));
    std::string registration;
    if (found != state.registrations.end()) {
        registration = R"(,"dynDNS":{"name":)" + quote(found->second.name) + R"(,"enabled":)" +
                       (found->second.enabled ? "true}" : "false}");
    }
    exchange.body = R"({"status":"SUCCESS")" + registration + "}";
}

static void answerSet(State& state, const Request& request, const std::string&, Exchange& exchange) {
    const OwnedJson wish = parseJson(request.body.c_str());
    const char* const haId = jsonTextMember(wish.get(), "haId");
    const char* const name = jsonTextMember(wish.get(), "name");
    const cJSON* const enabled = cJSON_GetObjectItem(wish.get(), "enabled");
    if (!haId || !name || !cJSON_IsBool(enabled)) return refuse(exchange, 400, "BAD_REQUEST");
    if (*name && !isFree(state, name, haId)) return refuse(exchange, 200, "NAME_TAKEN");
    if (*name) {
        state.registrations[haId] = {name, cJSON_IsTrue(enabled) != 0};
    } else {
        state.registrations.erase(haId);
    }
    exchange.body = R"({"status":"SUCCESS"})";
}

static void answerParams(State& state, const Request&, const std::string& haId, Exchange& exchange) {
    const auto found = state.accounts.find(haId);
    std::string account;
    if (found != state.accounts.end()) {
        account = "{\"email\":" + quote(found->second.email) + ",\"password\":" + quote(found->second.password) + "}";
    }
    exchange.body = R"({"status":"SUCCESS","params":)" + quote(account) + "}";
}

static void answerAuth(State& state, const Request& request, const std::string&, Exchange& exchange) {
    const bool known = std::any_of(state.accounts.begin(), state.accounts.end(), [&](const auto& entry) {
        return entry.second.email == request.get_param_value("email") &&
               entry.second.password == request.get_param_value("password");
    });
    if (!known) return refuse(exchange, 200, "auth.failed");
    const std::string token = "token-" + std::to_string(state.tokens.size() + 1);
    state.tokens.insert(token);
    exchange.body = R"({"status":"ok","authToken":)" + quote(token) + "}";
}

static void refusePlug(Exchange& exchange, const char* error) {
    exchange.body = std::string(R"({"status":"error","error":")") + error + "\"}";
}

// The plug that a request names with a valid token; without one the refusal is the answer.
static Plug* authorizedPlug(State& state, const Request& request, Exchange& exchange) {
    if (!state.tokens.contains(request.get_header_value("Auth-Token"))) {
        refusePlug(exchange, "auth.token.invalid");
        return nullptr;
    }
    const auto found = state.plugs.find(request.get_param_value("id"));
    if (found == state.plugs.end()) {
        refusePlug(exchange, "device.not.found");
        return nullptr;
    }
    return &found->second;
}

static void answerDevice(State& state, const Request& request, const std::string&, Exchange& exchange) {
    const Plug* const plug = authorizedPlug(state, request, exchange);
    if (!plug) return;
    exchange.body = R"({"status":"ok","device":{"id":)" + quote(request.get_param_value("id")) + R"(,"state":)" +
                    quote(plug->state) + R"(,"power":)" + plug->power + "}}";
}

static void answerSwitch(State& state, const Request& request, const std::string&, Exchange& exchange) {
    Plug* const plug = authorizedPlug(state, request, exchange);
    if (!plug) return;
    if (!plug->connected) return refusePlug(exchange, "device.not.connected");
    if (!plug->switchable) return refusePlug(exchange, "switch.not.allowed");
    const bool on = request.get_param_value("on") == "true";
    plug->state = on ? "on" : "off";
    plug->power = on ? plug->powerWhenOn : "0";
    exchange.body = R"({"status":"ok","state":)" + quote(plug->state) + "}";
}

static constexpr Resource KResources[] = {
    {"verify", "GET",  "/hm/dyndns/verify",  "",        answerVerify},
    {"get",    "GET",  "/hm/dyndns",         "",        answerGet   },
    {"set",    "POST", "/hm/dyndns/set",     "",        answerSet   },
    {"params", "GET",  "/hm/stardevice/",    "/params", answerParams},
    {"auth",   "POST", "/api/auth",          "",        answerAuth  },
    {"device", "POST", "/api/device",        "",        answerDevice},
    {"switch", "POST", "/api/device/switch", "",        answerSwitch},
};

std::span<const Resource> resources() { return KResources; }

const Resource* findResource(const std::string& path, std::string& haId) {
    for (const Resource& resource : KResources) {
        const std::string_view begin = resource.pathBegin;
        const std::string_view end = resource.pathEnd;
        if (path.size() < begin.size() + end.size() || !path.starts_with(begin) || !path.ends_with(end)) continue;
        if (end.empty() && path.size() != begin.size()) continue;
        haId = path.substr(begin.size(), path.size() - begin.size() - end.size());
        return &resource;
    }
    return nullptr;
}

}  // namespace cloudsim
