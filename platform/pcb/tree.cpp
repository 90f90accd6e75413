#include "platform/pcb/tree.h"

#include <cstring>
#include <utility>

#include "platform/pcb/wire.h"

void object_t::clear() {
    while (parameter_t* parameter = firstParameter) {
        firstParameter = parameter->next;
        const OwnedRecord<parameter_t> released(parameter);
    }
    while (object_t* child = firstChild) {
        firstChild = child->next;
        const OwnedRecord<object_t> released(child);
    }
    lastParameter = nullptr;
    lastChild = nullptr;
}

object_t* findChild(object_t* object, std::string_view name) {
    for (object_t* child = object->firstChild; child; child = child->next) {
        if (name == child->name.get()) return child;
    }
    return nullptr;
}

// Takes the first name off a path; an empty path stays one without names.
static std::string_view takeName(std::string_view* path) {
    const size_t dot = path->find('.');
    const std::string_view name = path->substr(0, dot);
    path->remove_prefix(dot == std::string_view::npos ? path->size() : dot + 1);
    return name;
}

static bool wellFormed(std::string_view path) {
    return path.empty() || (path.front() != '.' && path.back() != '.' && path.find("..") == std::string_view::npos);
}

object_t* findObject(object_t* root, const char* path) {
    std::string_view rest = path;
    if (!wellFormed(rest)) return nullptr;
    object_t* object = root;
    while (object && !rest.empty()) {
        object = findChild(object, takeName(&rest));
    }
    return object;
}

object_t* makeObject(object_t* root, const char* path) {
    std::string_view rest = path;
    if (!wellFormed(rest)) return nullptr;
    object_t* object = root;
    for (int depth = 0; object && !rest.empty(); ++depth) {
        if (depth >= KMaxDepth) return nullptr;
        const std::string_view name = takeName(&rest);
        object_t* child = findChild(object, name);
        object = child ? child : addChild(object, name);
    }
    return object;
}

object_t* addChild(object_t* parent, std::string_view name) {
    auto child = newRecord<object_t>();
    if (!child) return nullptr;
    child->name = copyPiece(name);
    if (!child->name) return nullptr;
    child->parent = parent;
    (parent->lastChild ? parent->lastChild->next : parent->firstChild) = child.get();
    return parent->lastChild = child.release();
}

void moveContents(object_t* to, object_t* from) {
    to->clear();
    std::swap(to->firstChild, from->firstChild);
    std::swap(to->lastChild, from->lastChild);
    std::swap(to->firstParameter, from->firstParameter);
    std::swap(to->lastParameter, from->lastParameter);
    for (object_t* child = to->firstChild; child; child = child->next) {
        child->parent = to;
    }
}

void removeObject(object_t* object) {
    object_t* parent = object->parent;
    object_t* before = nullptr;
    object_t** link = &parent->firstChild;
    while (*link != object) {
        before = *link;
        link = &before->next;
    }
    *link = object->next;
    if (parent->lastChild == object) parent->lastChild = before;
    const OwnedRecord<object_t> released(object);
}

parameter_t* addParameter(object_t* object, std::string_view name, ParameterType type, bool readOnly,
                          std::string_view value) {
    auto parameter = newRecord<parameter_t>();
    if (!parameter) return nullptr;
    parameter->name = copyPiece(name);
    parameter->value.value.text = copyPiece(value).release();
    parameter->value.type = VARIANT_TEXT;
    if (!parameter->name || !parameter->text()) return nullptr;
    parameter->type = type;
    parameter->readOnly = readOnly;
    (object->lastParameter ? object->lastParameter->next : object->firstParameter) = parameter.get();
    return object->lastParameter = parameter.release();
}

bool setParameterText(parameter_t* parameter, const char* text) { return variant_setChar(&parameter->value, text); }

bool fitsType(ParameterType type, std::string_view text) {
    return type == ParameterType::String || text == "true" || text == "false" || text == "1" || text == "0";
}

OwnedText objectPath(const object_t* object) {
    if (!object->parent) return copyText("");
    if (!object->parent->parent) return copyText(object->name.get());
    const OwnedText above = objectPath(object->parent);
    return above ? formatText("%s.%s", above.get(), object->name.get()) : nullptr;
}

static OwnedJson parameterToJson(const parameter_t* parameter) {
    OwnedJson json(cJSON_CreateObject());
    const bool complete =
        json && addJsonText(json.get(), KWireName, parameter->name.get()) &&
        addJsonText(json.get(), KWireType, parameter->type == ParameterType::Bool ? "bool" : "string") &&
        (!parameter->readOnly || cJSON_AddTrueToObject(json.get(), KWireReadOnly)) &&
        addJsonText(json.get(), KWireValue, parameter->text());
    return complete ? std::move(json) : nullptr;
}

OwnedJson objectToJson(const object_t* object, int depth) {
    OwnedJson json(cJSON_CreateObject());
    if (!json || !addJsonText(json.get(), KWireName, textOrEmpty(object->name.get()))) return nullptr;
    cJSON* parameters = cJSON_AddArrayToObject(json.get(), KWireParameters);
    cJSON* objects = cJSON_AddArrayToObject(json.get(), KWireObjects);
    if (!parameters || !objects) return nullptr;
    for (const parameter_t* parameter = object->firstParameter; parameter; parameter = parameter->next) {
        OwnedJson item = parameterToJson(parameter);
        if (!item) return nullptr;
        cJSON_AddItemToArray(parameters, item.release());
    }
    for (const object_t* child = depth ? object->firstChild : nullptr; child; child = child->next) {
        OwnedJson item = objectToJson(child, depth - 1);
        if (!item) return nullptr;
        cJSON_AddItemToArray(objects, item.release());
    }
    return json;
}

static bool objectFromJson(object_t* object, const cJSON* json, int depth) {
    object->clear();
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(json, KWireParameters)) {
        const char* name = jsonText(item, KWireName);
        const char* type = jsonText(item, KWireType);
        const char* value = jsonText(item, KWireValue);
        if (!name || !type || !value) return false;
        if (!addParameter(object, name, strcmp(type, "bool") == 0 ? ParameterType::Bool : ParameterType::String,
                          cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(item, KWireReadOnly)), value)) {
            return false;
        }
    }
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(json, KWireObjects)) {
        const char* name = jsonText(item, KWireName);
        object_t* child = name && depth < KMaxDepth ? addChild(object, name) : nullptr;
        if (!child || !objectFromJson(child, item, depth + 1)) return false;
    }
    return true;
}

bool objectFromJson(object_t* object, const cJSON* json) { return objectFromJson(object, json, 0); }
