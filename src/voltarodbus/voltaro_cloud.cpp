#include "src/voltarodbus/voltaro_cloud.h"

#include <curl/curl.h>

#include <cstring>
#include <initializer_list>
#include <utility>

#include "common/json/json.h"
#include "common/log/one_text_format.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/httprequest/httprequest.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/voltarodbus";

static constexpr char KFormHeaders[] = R"({"Content-Type":"application/x-www-form-urlencoded"})";

OwnedText urlEncodeString(const char* text) {
    CURL* curl = curl_easy_init();
    if (!curl) return nullptr;
    char* escaped = curl_easy_escape(curl, text, 0);
    curl_easy_cleanup(curl);
    if (!escaped) return nullptr;
    // What libcurl allocated is released by libcurl; our texts are released with free.
    OwnedText copy = copyText(escaped);
    curl_free(escaped);
    return copy;
}

namespace {

struct Needed {
    const char* text;
    const char* missingLine;
};

// A server's answer that has a status.
struct Answer {
    OwnedText body;
    OwnedJson json;      // null when the answer cannot be used
    const char* status;  // not empty; belongs to the tree
};

}  // namespace

static bool isOk(const Answer& answer) { return strcmp(answer.status, "ok") == 0; }

// Whether all texts are there and not empty; the first that is not is logged.
static bool requireTexts(std::initializer_list<Needed> all) {
    for (const Needed& needed : all) {
        if (needed.text && *needed.text) continue;
        LOG(ERROR, "%s", needed.missingLine);
        return false;
    }
    return true;
}

static bool requirePlugArguments(const char* token, const char* switchId) {
    return requireTexts({
        {getVoltaroServerUrl(), "Voltaro server url is empty"},
        {token,                 "Voltaro auth token is empty"},
        {switchId,              "Voltaro switch id is empty" },
    });
}

static OwnedText makeUrl(const char* path) {
    OwnedText url = formatText("%s%s", getVoltaroServerUrl(), path);
    if (!url) {
        LOG(ERROR, "Out of memory");
        return nullptr;
    }
    LOG(INFO, "Sending request: %s", url.get());
    return url;
}

// A member that is a text and not empty, else null.
static const char* nonEmptyText(const cJSON* object, const char* name) {
    const char* text = jsonTextMember(object, name);
    return text && *text ? text : nullptr;
}

static Answer readAnswer(const char* url, OwnedText body) {
    if (!body) {
        LOG(ERROR, "Error while executing request %s", url);
        return {};
    }
    LOG(INFO, "Request returned OK");
    Answer answer = {std::move(body), nullptr, nullptr};
    answer.json = parseJson(answer.body.get());
    answer.status = nonEmptyText(answer.json.get(), "status");
    if (!answer.status) answer.json.reset();
    return answer;
}

static OwnedText copyOfToken(const Answer& answer) {
    LOG(INFO, "Auth status OK");
    const char* token = nonEmptyText(answer.json.get(), "authToken");
    if (!token) {
        LOG(ERROR, "Cannot find authToken in response json");
        return nullptr;
    }
    return copyText(token);
}

OwnedText loginToVoltaro(const char* email, const char* password) {
    LOG(INFO, "Login to Voltaro");
    if (!requireTexts({
            {getVoltaroServerUrl(), "Voltaro server url is empty"    },
            {email,                 "Voltaro login email is empty"   },
            {password,              "Voltaro login password is empty"},
    })) {
        return nullptr;
    }
    const OwnedText url = makeUrl("/api/auth");
    if (!url) return nullptr;
    const OwnedText encodedEmail = urlEncodeString(email);
    const OwnedText encodedPassword = urlEncodeString(password);
    if (!encodedEmail || !encodedPassword) {
        LOG(ERROR, "Cannot URL encode email or password");
        return nullptr;
    }
    const OwnedText form = formatText("email=%s&password=%s", encodedEmail.get(), encodedPassword.get());
    if (!form) {
        LOG(ERROR, "Cannot allocate memory for URL encoded form");
        return nullptr;
    }
    LOG(DEBUG, "URL encoded form: %s", form.get());
    const Answer answer =
        readAnswer(url.get(), curlPostV2(url.get(), form.get(), getPathToServerCABundleFile(), KFormHeaders));
    if (!answer.json) return nullptr;
    if (!isOk(answer)) {
        LOG(ERROR, "Auth request returned error %s", answer.status);
        return nullptr;
    }
    return copyOfToken(answer);
}

static OwnedJson makeHeaders(const char* token) {
    OwnedJson headers = parseJson(KFormHeaders);
    if (!cJSON_AddStringToObject(headers.get(), "Auth-Token", token)) {
        // The cloud would only refuse a request without its token.
        LOG(ERROR, "Out of memory");
        return nullptr;
    }
    return headers;
}

// Sends a form to a plug resource; what goes wrong is logged.
static Answer postPlugForm(const char* path, const char* token, const OwnedText& form) {
    if (!form) {
        LOG(ERROR, "Cannot allocate memory for URL encoded form");
        return {};
    }
    const OwnedJson headers = makeHeaders(token);
    if (!headers) return {};
    const OwnedText url = makeUrl(path);
    if (!url) return {};
    return readAnswer(url.get(), curlPostV1(url.get(), form.get(), getPathToServerCABundleFile(), headers.get()));
}

OwnedText getSwitchDetails(const char* token, const char* switchId) {
    LOG(INFO, "Get switch details");
    if (!requirePlugArguments(token, switchId)) return nullptr;
    Answer answer = postPlugForm("/api/device", token, formatText("id=%s&minimal=false", switchId));
    if (!answer.json) return nullptr;
    if (!isOk(answer)) {
        LOG(ERROR, "Request returned error %s", answer.status);
        return nullptr;
    }
    LOG(INFO, "Get switch details OK");
    return std::move(answer.body);
}

// Replaces a toggle by the action that leads to the other state. False when the present state cannot be read.
static bool resolveToggle(const char* token, const char* switchId, SwitchAction* action) {
    const OwnedText details = getSwitchDetails(token, switchId);
    if (!details) return false;
    const OwnedJson parsed = parseJson(details.get());
    if (!parsed) {
        LOG(ERROR, "Cannot parse json");
        return false;
    }
    const cJSON* device = cJSON_GetObjectItem(parsed.get(), "device");
    if (!device) {
        LOG(ERROR, "No device contents");
        return false;
    }
    const char* state = jsonTextMember(device, "state");
    if (!state) {
        LOG(ERROR, "Unknown device state");
        return false;
    }
    *action = strcmp(state, "on") == 0 ? SWITCH_ACTION_OFF : SWITCH_ACTION_ON;
    return true;
}

static SwitchChangeError classify(const char* error) {
    if (!error) return SWITCH_ERROR_NONE;
    if (strcmp(error, "device.not.connected") == 0) return SWITCH_ERROR_NOT_CONNECTED;
    if (strcmp(error, "switch.not.allowed") == 0) return SWITCH_ERROR_NOT_ALLOWED;
    return SWITCH_ERROR_NONE;
}

static OwnedText copyOfState(const Answer& answer) {
    LOG(INFO, "Switch state change OK");
    const char* state = nonEmptyText(answer.json.get(), "state");
    if (!state) {
        LOG(ERROR, "Cannot find state in response json");
        return nullptr;
    }
    LOG(INFO, "Current switch state: %s", state);
    OwnedText copy = copyText(state);
    if (!copy) LOG(ERROR, "Out of memory");
    return copy;
}

OwnedText changeStateOfSwitch(const char* token, const char* switchId, SwitchAction action, SwitchChangeError* error) {
    LOG(INFO, "Change state of switch");
    *error = SWITCH_ERROR_NONE;
    if (!requirePlugArguments(token, switchId)) return nullptr;
    if (action == SWITCH_ACTION_TOGGLE && !resolveToggle(token, switchId, &action)) return nullptr;

    const char* on = action == SWITCH_ACTION_ON ? "true" : "false";
    const Answer answer = postPlugForm("/api/device/switch", token, formatText("id=%s&on=%s", switchId, on));
    if (!answer.json) return nullptr;
    if (isOk(answer)) return copyOfState(answer);
    LOG(ERROR, "Request returned error %s", answer.status);
    *error = classify(jsonTextMember(answer.json.get(), "error"));
    return nullptr;
}
