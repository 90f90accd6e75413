// Trees of objects and parameters: what the bus holds, what a client has fetched, what a file says.
#pragma once

#include "common/json/json.h"
#include "platform/pcb/buffer.h"
#include "platform/pcb/pcb.h"

inline constexpr size_t KMaxValueLength = size_t{1024} * 1024;
/// Objects stand at most this deep, so that recursion over a tree is safe.
inline constexpr int KMaxDepth = 32;

enum class ParameterType { Bool, String };

struct parameter_t {
    OwnedText name;
    variant_t value{};  // always a text
    ParameterType type = ParameterType::String;
    bool readOnly = false;
    unsigned line = 0;  // in the file it was read from
    parameter_t* next = nullptr;

    parameter_t() = default;
    parameter_t(const parameter_t&) = delete;
    parameter_t& operator=(const parameter_t&) = delete;
    ~parameter_t() { variant_cleanup(&value); }
    const char* text() const { return value.value.text; }
};

/// An object owns its parameters and the objects below it; a root has no name and no parent.
struct object_t {
    OwnedText name;
    object_t* parent = nullptr;
    object_t *firstChild = nullptr, *lastChild = nullptr, *next = nullptr;
    parameter_t *firstParameter = nullptr, *lastParameter = nullptr;

    object_t() = default;
    object_t(const object_t&) = delete;
    object_t& operator=(const object_t&) = delete;
    ~object_t() { clear(); }
    void clear();
};

/// The object at a path below `root`, such as "OrvoService.DynDNS"; the empty path is the root. Null when there is
/// none.
object_t* findObject(object_t* root, const char* path);
object_t* findChild(object_t* object, std::string_view name);
/// As findObject, but makes what is missing on the way; null when out of memory, the path malformed or too deep.
object_t* makeObject(object_t* root, const char* path);
/// A new object below `parent`; null when out of memory.
object_t* addChild(object_t* parent, std::string_view name);
/// Puts what lies below `from` in the place of what lies below `to`; `from` is empty afterwards.
void moveContents(object_t* to, object_t* from);
/// Takes an object out of its parent and frees it.
void removeObject(object_t* object);
/// A new parameter; null when out of memory.
parameter_t* addParameter(object_t* object, std::string_view name, ParameterType type, bool readOnly,
                          std::string_view value);
bool setParameterText(parameter_t* parameter, const char* text);
/// Whether `text` is a value of that type: a boolean takes "true", "false", "1" and "0".
bool fitsType(ParameterType type, std::string_view text);
/// The path from the root; null when out of memory.
[[nodiscard]] OwnedText objectPath(const object_t* object);

/// An object with what lies at most `depth` levels below it (-1: all); null when out of memory.
[[nodiscard]] OwnedJson objectToJson(const object_t* object, int depth);
/// Makes `object` what objectToJson wrote; false when out of memory or it is something else.
[[nodiscard]] bool objectFromJson(object_t* object, const cJSON* json);
