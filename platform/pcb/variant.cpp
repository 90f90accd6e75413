// Values, maps of values, lists, and the error of the thread.
#include <cstring>

#include "platform/pcb/buffer.h"
#include "platform/pcb/internal.h"

struct variant_map_entry_t {
    OwnedText key;
    variant_t value{};
    variant_map_entry_t* next = nullptr;

    ~variant_map_entry_t() { variant_cleanup(&value); }
};

uint32_t* pcb_errorLocation() {
    static thread_local uint32_t error = 0;
    return &error;
}

const char* error_string(uint32_t code) {
    static constexpr struct {
        uint32_t code;
        const char* text;
    } KTexts[] = {
        {0,                           "no error"                       },
        {PCB_ERROR_NOT_CONNECTED,     "not connected"                  },
        {PCB_ERROR_TIMEOUT,           "no answer in time"              },
        {PCB_ERROR_CONNECTION_LOST,   "connection lost"                },
        {PCB_ERROR_NO_MEMORY,         "memory is short"                },
        {PCB_ERROR_INVALID_ARGUMENT,  "invalid argument"               },
        {PCB_ERROR_CANNOT_CONNECT,    "cannot connect"                 },
        {PCB_ERROR_UNREADABLE_FRAME,  "answer cannot be read"          },
        {PCB_ERROR_FRAME_TOO_LARGE,   "more than 16 MiB at once"       },
        {PCB_ERROR_BACKLOG,           "the bus does not read"          },
        {PCB_ERROR_CANNOT_READ_FILE,  "cannot read the file"           },
        {PCB_ERROR_DAMAGED_FILE,      "the file is damaged"            },
        {PCB_ERROR_CANNOT_WRITE_FILE, "cannot write the file"          },
        {PCB_ERROR_SYSTEM,            "a system call failed"           },
        {PCB_ERROR_UNKNOWN_OBJECT,    "unknown object"                 },
        {PCB_ERROR_UNKNOWN_PARAMETER, "unknown parameter"              },
        {PCB_ERROR_UNKNOWN_FUNCTION,  "unknown function"               },
        {PCB_ERROR_WRONG_TYPE,        "the value does not fit the type"},
        {PCB_ERROR_READ_ONLY,         "the parameter is read-only"     },
        {PCB_ERROR_VALUE_TOO_LONG,    "the value is longer than 1 MiB" },
        {PCB_ERROR_MALFORMED_REQUEST, "malformed request"              },
        {PCB_ERROR_FUNCTION_FAILED,   "the function failed"            },
    };
    for (const auto& row : KTexts) {
        if (row.code == code) return row.text;
    }
    return "unknown error";
}

bool llist_initialize(llist_t* list) {
    OWED(list);
    list->first = nullptr;
    return true;
}

bool llist_append(llist_t* list, llist_iterator_t* link) {
    OWED(list);
    OWED(link);
    if (link->list) return fail(PCB_ERROR_INVALID_ARGUMENT);
    llist_iterator_t** end = &list->first;
    while (*end) {
        end = &(*end)->next;
    }
    *end = link;
    *link = {nullptr, list};
    return true;
}

void llist_cleanup(llist_t* list) {
    OWED(list);
    while (llist_iterator_t* link = list->first) {
        list->first = link->next;
        *link = {};
    }
}

bool variant_initialize(variant_t* variant) {
    OWED(variant);
    *variant = {};
    return true;
}

void variant_cleanup(variant_t* variant) {
    OWED(variant);
    if (variant->type == VARIANT_TEXT) free(variant->value.text);
    if (variant->type == VARIANT_MAP) releaseEntries(&variant->value.map);
    *variant = {};
}

bool variant_setChar(variant_t* variant, const char* text) {
    OWED(variant);
    OWED(text);
    char* copy = strdup(text);
    if (!copy) return fail(PCB_ERROR_NO_MEMORY);
    variant_cleanup(variant);
    variant->type = VARIANT_TEXT;
    variant->value.text = copy;
    return true;
}

bool variant_setMapMove(variant_t* variant, variant_map_t* map) {
    OWED(variant);
    OWED(map);
    variant_cleanup(variant);
    variant->type = VARIANT_MAP;
    variant->value.map = *map;
    *map = {};
    return true;
}

char* variant_char(const variant_t* variant) {
    OWED(variant);
    OwnedText text;
    switch (variant->type) {
        case VARIANT_TEXT: text = copyText(variant->value.text); break;
        case VARIANT_INT32: text = formatText("%d", variant->value.number); break;
        case VARIANT_BOOL: text = copyText(variant->value.flag ? "true" : "false"); break;
        case VARIANT_MAP:
        case VARIANT_EMPTY: fail(PCB_ERROR_INVALID_ARGUMENT); return nullptr;
    }
    if (!text) fail(PCB_ERROR_NO_MEMORY);
    return text.release();
}

bool variant_map_initialize(variant_map_t* map) {
    OWED(map);
    *map = {};
    return true;
}

// Takes the value over, whatever comes of it.
static bool addToMap(variant_map_t* map, const char* key, variant_t value) {
    auto entry = newRecord<variant_map_entry_t>();
    if (!entry) {
        variant_cleanup(&value);
        return fail(PCB_ERROR_NO_MEMORY);
    }
    entry->value = value;
    entry->key = copyText(key);
    if (!entry->key) return fail(PCB_ERROR_NO_MEMORY);
    variant_map_entry_t** end = &map->first;
    while (*end) {
        end = &(*end)->next;
    }
    *end = entry.release();
    return true;
}

bool variant_map_addChar(variant_map_t* map, const char* key, const char* text) {
    OWED(map);
    OWED(key);
    variant_t value{};
    return variant_setChar(&value, text) && addToMap(map, key, value);
}

bool variant_map_addInt32(variant_map_t* map, const char* key, int32_t number) {
    OWED(map);
    OWED(key);
    variant_t value{};
    value.type = VARIANT_INT32;
    value.value.number = number;
    return addToMap(map, key, value);
}

bool variant_map_addBool(variant_map_t* map, const char* key, bool flag) {
    OWED(map);
    OWED(key);
    variant_t value{};
    value.type = VARIANT_BOOL;
    value.value.flag = flag;
    return addToMap(map, key, value);
}

void releaseEntries(variant_map_t* map) {
    while (variant_map_entry_t* entry = map->first) {
        map->first = entry->next;
        const OwnedRecord<variant_map_entry_t> released(entry);
    }
}

OwnedJson variantToJson(const variant_t* variant) {
    switch (variant->type) {
        case VARIANT_TEXT: return OwnedJson(cJSON_CreateString(variant->value.text));
        case VARIANT_INT32: return OwnedJson(cJSON_CreateNumber(variant->value.number));
        case VARIANT_BOOL: return OwnedJson(cJSON_CreateBool(variant->value.flag));
        case VARIANT_EMPTY: return OwnedJson(cJSON_CreateNull());
        case VARIANT_MAP: break;
    }
    OwnedJson object(cJSON_CreateObject());
    if (!object) return nullptr;
    for (const variant_map_entry_t* entry = variant->value.map.first; entry; entry = entry->next) {
        if (!addJson(object.get(), entry->key.get(), variantToJson(&entry->value))) return nullptr;
    }
    return object;
}

variant_t variantInsideJson(const cJSON* item) {
    variant_t variant{};
    if (cJSON_IsString(item)) {
        variant.type = VARIANT_TEXT;
        variant.value.text = item->valuestring;
    } else if (cJSON_IsBool(item)) {
        variant.type = VARIANT_BOOL;
        variant.value.flag = cJSON_IsTrue(item);
    } else if (cJSON_IsNumber(item)) {
        variant.type = VARIANT_INT32;
        variant.value.number = item->valueint;
    }
    return variant;
}
