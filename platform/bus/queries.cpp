// The queries on the interfaces' data: objects that come and go, with a result that follows the gateway's addresses.
#include <cstring>

#include "platform/bus/bus.h"

static constexpr char KData[] = "NeMo.Intf.data";
static constexpr char KContainer[] = "Query";
static constexpr char KResult[] = "ResultString";

static constexpr struct {
    const char *argument, *parameter;
} KArguments[] = {
    {"subscriber", "Subscriber"},
    {"class",      "Class"     },
    {"flag",       "Flag"      },
    {"traverse",   "Traverse"  },
};

static const char* argumentText(const cJSON* arguments, const char* name) {
    return textOrEmpty(jsonText(arguments, name));
}

static bool fillQuery(object_t* query, const cJSON* arguments) {
    for (const auto& row : KArguments) {
        const char* text = argumentText(arguments, row.argument);
        if (!addParameter(query, row.parameter, ParameterType::String, true, text)) return false;
    }
    const char* addresses = textOrEmpty(valueOf(KData, "Addresses"));
    return addParameter(query, KResult, ParameterType::String, true, addresses);
}

OwnedText openQuery(object_t* data, const cJSON* arguments) {
    static unsigned lastNumber = 0;
    object_t* container = findChild(data, KContainer);
    if (!container) container = addChild(data, KContainer);
    OwnedText number;
    do {
        number = formatText("%u", ++lastNumber);
    } while (container && number && findChild(container, number.get()));
    object_t* query = container && number ? addChild(container, number.get()) : nullptr;
    if (!query) return nullptr;
    if (fillQuery(query, arguments)) return number;
    removeObject(query);
    return nullptr;
}

static bool isQueryWith(object_t* query, const cJSON* arguments) {
    for (const auto& row : KArguments) {
        const parameter_t* parameter = object_getParameter(query, row.parameter);
        if (!parameter || strcmp(parameter->text(), argumentText(arguments, row.argument)) != 0) return false;
    }
    return true;
}

static object_t* firstQuery(object_t* data) {
    object_t* container = data ? findChild(data, KContainer) : nullptr;
    return container ? container->firstChild : nullptr;
}

void closeQuery(object_t* data, const cJSON* arguments) {
    for (object_t *query = firstQuery(data), *next = nullptr; query; query = next) {
        next = query->next;
        if (isQueryWith(query, arguments)) removeObject(query);
    }
}

void updateQueries() {
    const char* addresses = textOrEmpty(valueOf(KData, "Addresses"));
    for (object_t* query = firstQuery(findObject(iBus.tree, KData)); query; query = query->next) {
        parameter_t* result = object_getParameter(query, KResult);
        if (result) (void)changeValue(query, result, addresses);
    }
}
