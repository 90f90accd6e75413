#include "common/json/json.h"

OwnedJson parseJson(const char* text) { return OwnedJson(text ? cJSON_Parse(text) : nullptr); }

const char* jsonTextMember(const cJSON* object, const char* name) {
    return cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
}

bool addJsonStringOrNull(cJSON* object, const char* key, const char* text) {
    return (text ? cJSON_AddStringToObject(object, key, text) : cJSON_AddNullToObject(object, key)) != nullptr;
}

OwnedText printJson(const cJSON* tree) { return OwnedText(cJSON_PrintUnformatted(tree)); }
