// The requests engine: the server settings that every request needs, and the application server's resources.
#pragma once

#include "common/text/text.h"

/// The registration that setDynDnsConfiguration sends; record and texts belong to the caller.
struct DynDnsConfiguration {
    const char* haId;  // of the gateway
    const char* name;  // the dynamic-DNS host name; empty clears it
    int enabled;       // not 0: the name is to be enabled
};

/// Stores copies of the three settings: 1, or 0 when one cannot be copied (or is null), and then all stay as they were.
/// Main thread, before the bus thread exists.
[[nodiscard]] int initRequestsEngine(const char* caBundle, const char* applicationServerUrl,
                                     const char* voltaroServerUrl);

/// Releases the three settings. Only at the end of the process, with no other thread inside the gate.
void cleanRequestsEngine();

/// Replaces the application server's base URL by a copy of `url`: 1, or 0 when it cannot be copied (or is null), and
/// then the old one stays. Bus thread only.
[[nodiscard]] int setApplicationServerUrl(const char* url);

/// The path of the certificates that both servers are verified with, or null. It is the engine's own: not to be kept
/// across cleanRequestsEngine. Bus thread only.
const char* getPathToServerCABundleFile();

/// The smart-plug cloud's base URL, or null; as getPathToServerCABundleFile.
const char* getVoltaroServerUrl();

// The requests below give the answer's body whatever its HTTP status, or null when a setting or argument is missing,
// memory is short or the request failed (all logged, except a URL of getDynDnsConfiguration or getParamsForHaId that
// cannot be allocated). The base URL, names and HA-IDs go out as they are, empty ones too. Bus thread only; each blocks
// as long as a request of httprequest.h.

/// Asks whether a host name is still free.
[[nodiscard]] OwnedText verifyDynDnsName(const char* name);

/// Asks for the registration of a gateway.
[[nodiscard]] OwnedText getDynDnsConfiguration(const char* haId);

/// Registers a host name for a gateway, enabled or disabled.
[[nodiscard]] OwnedText setDynDnsConfiguration(const DynDnsConfiguration& configuration);

/// Asks for the parameters kept for a gateway, such as its smart-plug account.
[[nodiscard]] OwnedText getParamsForHaId(const char* haId);
