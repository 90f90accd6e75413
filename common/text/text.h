// Owned texts: what a function hands out as "a new text" is an OwnedText.
#pragma once

#include "common/owned/owned.h"

using OwnedText = Owned<char, free>;

/// Formats like printf into a new text; null when out of memory. Any thread.
[[nodiscard]] OwnedText formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// A copy of `text` (not null); null when out of memory. Any thread.
[[nodiscard]] OwnedText copyText(const char* text);

/// A copy of `text` in `copy`, which is null for a null text. False, with a null `copy`, when out of memory. Any
/// thread.
[[nodiscard]] bool duplicateStringOrNull(const char* text, OwnedText* copy);

/// `text` itself, or the empty text for null. Any thread.
inline const char* textOrEmpty(const char* text) { return text ? text : ""; }

/// The rule for settings in the configuration file: 1 when `text` is exactly "true" or exactly "yes", else 0.
/// `text` is not null. Any thread.
int bool_text_value_to_int(const char* text);

/// The rule for booleans of the data model read as text: true when `text` is "true" or exactly "1"; null is false.
/// Any thread.
bool isDataModelTrue(const char* text);
