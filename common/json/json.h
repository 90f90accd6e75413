// Owned JSON trees and the member lookups that every reader of JSON here shares.
#pragma once

#include <cjson/cJSON.h>

#include "common/text/text.h"

using OwnedJson = Owned<cJSON, cJSON_Delete>;

/// Parses `text` (null gives null): the tree, or null when it is not JSON or out of memory. What follows the first
/// JSON value is ignored. Any thread.
[[nodiscard]] OwnedJson parseJson(const char* text);

/// The text of the member `name` of `object`, looked up without regard to case, the first match winning; null when
/// `object` is null, has no such member, or the member is no text. The text belongs to the tree. Any thread.
const char* jsonTextMember(const cJSON* object, const char* name);

/// Adds the member `key` to `object`: `text` as a JSON string, or JSON null for a null text. False when out of memory
/// (the object stays as it was). Any thread.
[[nodiscard]] bool addJsonStringOrNull(cJSON* object, const char* key, const char* text);

/// Prints `tree` without white space into a new text; null when out of memory. Any thread.
[[nodiscard]] OwnedText printJson(const cJSON* tree);
