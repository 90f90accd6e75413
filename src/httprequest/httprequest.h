// One blocking HTTPS request per call. The HTTP status is not examined: whatever the server answers is handed back.
#pragma once

#include "common/json/json.h"
#include "common/text/text.h"

// What all four share. The result is the answer's body, zero-terminated (a body that holds a zero byte ends
// there for its reader), or null when there was no complete answer; the reason is logged. `uri` goes out as it is; null
// or empty fails. `caBundle` is the path of the certificates that the server is verified with: null means libcurl's own
// store (logged), an empty one is a path like any other and fails, and so does a pipe or a device. Bus thread only;
// blocks up to 30 s, and longer only while the resolver waits for name servers that never answer, which libcurl cannot
// cut short. The caller's texts must stay valid until the call returns. During the transfer the gate is given up, and
// none of them but `body` is touched: the end of the process may release `uri`, `caBundle` and `headers` meanwhile.

/// Sends a request with any method and without a body.
[[nodiscard]] OwnedText curlRequest(const char* uri, const char* method, const char* caBundle);

/// Sends a GET.
[[nodiscard]] OwnedText curlGet(const char* uri, const char* caBundle);

/// Sends a POST. A null `body` goes out as an empty one. `headers` is an object whose members are header names with
/// text values, or null or empty for no header; it stays the caller's. A member that is no text fails the request.
[[nodiscard]] OwnedText curlPostV1(const char* uri, const char* body, const char* caBundle, const cJSON* headers);

/// curlPostV1 with the header object as JSON text, such as {"Content-Type":"application/json"}; a text that is not JSON
/// (or null) fails before anything is sent.
[[nodiscard]] OwnedText curlPostV2(const char* uri, const char* body, const char* caBundle, const char* headersText);
