// What a client and the bus say to each other: frames of one JSON object a line.
//
// A client's frame holds "op" and an "id" that counts up from 1, to 10^15 at most. The bus answers with the same id:
// "error" (a code), "description" and "info", or what the operation gives.
//
//   hello      name, platform                 -> {}
//   get        path, parameter                -> value
//   set        path, parameter, value         -> {}
//   object     path                           -> object
//   subscribe  path, depth, flags             -> object if asked for, else {}; and then any number of
//                                                notification (its type), path, parameters (an array of texts)
//   call       path, function, arguments (an object of texts and of objects, which are maps)
//                                             -> returns (if anything), arguments: [{name, value}]
//   cancel     request (the id of a subscription or call): no answer, and none for the request any more
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/json/json.h"

/// Without the line break at its end.
inline constexpr size_t KMaxFrameLength = size_t{16} * 1024 * 1024;
/// What may wait in one direction of a connection.
inline constexpr size_t KMaxBacklog = size_t{64} * 1024 * 1024;

inline constexpr char KWireOperation[] = "op";
inline constexpr char KWireId[] = "id";
inline constexpr char KWirePath[] = "path";
inline constexpr char KWireParameter[] = "parameter";
inline constexpr char KWireValue[] = "value";
inline constexpr char KWireObject[] = "object";
inline constexpr char KWireDepth[] = "depth";
inline constexpr char KWireFlags[] = "flags";
inline constexpr char KWireFunction[] = "function";
inline constexpr char KWireArguments[] = "arguments";
inline constexpr char KWireReturns[] = "returns";
inline constexpr char KWireNotification[] = "notification";
inline constexpr char KWireRequest[] = "request";
inline constexpr char KWirePlatform[] = "platform";
inline constexpr char KWireError[] = "error";
inline constexpr char KWireDescription[] = "description";
inline constexpr char KWireInfo[] = "info";
inline constexpr char KWireName[] = "name";
inline constexpr char KWireType[] = "type";
inline constexpr char KWireReadOnly[] = "readOnly";
inline constexpr char KWireParameters[] = "parameters";
inline constexpr char KWireObjects[] = "objects";

/// The text of a member, looked up exactly; null when there is none or it is no text.
inline const char* jsonText(const cJSON* object, const char* name) {
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
}

/// A member as a whole number from 0 to 10^15, such as an id or an error code; 0 when there is none.
inline uint64_t jsonCount(const cJSON* object, const char* name) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, name);
    if (!cJSON_IsNumber(item) || !(item->valuedouble >= 0 && item->valuedouble <= 1e15)) return 0;
    const auto count = static_cast<uint64_t>(item->valuedouble);
    return static_cast<double>(count) == item->valuedouble ? count : 0;
}

/// Adds a member; false when out of memory.
[[nodiscard]] inline bool addJsonText(cJSON* object, const char* name, const char* text) {
    return cJSON_AddStringToObject(object, name, text);
}

/// Adds a member, which the object takes over; false when out of memory.
[[nodiscard]] inline bool addJson(cJSON* object, const char* name, OwnedJson item) {
    if (!item || !cJSON_AddItemToObject(object, name, item.get())) return false;
    (void)item.release();  // the object holds it now
    return true;
}
