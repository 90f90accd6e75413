// The smart-plug cloud's HTTP API: log in, read a plug, switch a plug. Nothing is kept between calls; credentials and
// tokens are released when their owner goes. Every failure is logged, and is null to the caller. Bus thread only; each
// request blocks as long as one of httprequest.h.
#pragma once

#include "common/text/text.h"

enum SwitchAction : int { SWITCH_ACTION_ON = 0, SWITCH_ACTION_OFF = 1, SWITCH_ACTION_TOGGLE = 2 };

enum SwitchChangeError : int {
    SWITCH_ERROR_NONE = 0,           // no failure, or one of any other kind
    SWITCH_ERROR_NOT_CONNECTED = 1,  // the plug is not connected to the cloud
    SWITCH_ERROR_NOT_ALLOWED = 2,    // the cloud refuses the switching
};

/// A percent-encoded copy of `text` (not null): all but ASCII letters, digits and "-._~"; null when out of memory,
/// which the caller logs.
[[nodiscard]] OwnedText urlEncodeString(const char* text);

/// Exchanges an account's email and password for a token.
[[nodiscard]] OwnedText loginToVoltaro(const char* email, const char* password);

/// The cloud's whole answer about a plug, its status checked. The id goes out as it is.
[[nodiscard]] OwnedText getSwitchDetails(const char* token, const char* switchId);

/// Switches a plug; to toggle, its state is read first, in a request of its own. The plug's new state; `*error` (never
/// null) says why the cloud refused when the result is null.
[[nodiscard]] OwnedText changeStateOfSwitch(const char* token, const char* switchId, SwitchAction action,
                                            SwitchChangeError* error);
