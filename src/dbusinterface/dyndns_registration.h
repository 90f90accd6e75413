// The copy of the registration in the data model, and the reading of the server's answers about it.
#pragma once

#include "common/json/json.h"
#include "common/log/one_text_format.h"

/// Writes "Enable" and, on success, takes the value over into iDynDnsEnable (logged). The caller logs a failure; the
/// value is then kept in iUnansweredEnable, because the write may still take effect. Bus thread; blocks for the
/// exchange.
[[nodiscard]] bool storeDynDnsEnable(bool enable);

/// Writes "HostName", or clears it for an empty name: true when that is done; the outcome is logged. `name` is not
/// null. Bus thread; blocks for the exchange.
[[nodiscard]] bool storeDynDnsHostName(const char* name);

/// Whether a server's answer (null for none) has a text "status"; `*isSuccess` then says whether that is "SUCCESS". Any
/// thread.
[[nodiscard]] bool checkServerResponseStatusAndResult(const cJSON* answer, bool* isSuccess);

/// Parses a server's answer: the tree when its status is "SUCCESS", else null; a status that is another text is logged
/// at WARN with `statusWarning`. Any thread.
[[nodiscard]] OwnedJson parseSuccessfulAnswer(const char* body, const OneTextFormat& statusWarning);
