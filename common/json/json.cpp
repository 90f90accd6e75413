#include "common/json/json.h"

OwnedJson parseJson(const char* text) { return OwnedJson(text ? cJSON_Parse(text) : nullptr); }

const char* jsonTextMember(const cJSON* object, const char* name) {
    return cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
}

OwnedText printJson(const cJSON* tree) { return OwnedText(cJSON_PrintUnformatted(tree)); }
