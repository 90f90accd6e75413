#include "src/httprequest/httprequest.h"

#include <curl/curl.h>
#include <resolv.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "common/gate/gate.h"
#include "common/log/log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/httprequest";

static constexpr uint32_t KFirstCapacity = 1024;
static constexpr long KConnectTimeoutSeconds = 30;
static constexpr long KTransferTimeoutSeconds = 30;

using Handle = Owned<CURL, curl_easy_cleanup>;
using HeaderList = Owned<curl_slist, curl_slist_free_all>;

// The body received so far; `data` always has room for a terminating zero byte.
struct ResponseBuffer {
    uint32_t capacity;
    uint32_t length;
    OwnedText data;
};

// What a POST has beyond what every request has.
struct PostContent {
    const char* body;
    const cJSON* headers;
};

static bool growResponse(ResponseBuffer& response, uint32_t capacity) {
    char* const grown = static_cast<char*>(realloc(response.data.get(), capacity));
    if (!grown) return false;
    (void)response.data.release();  // realloc has taken it
    response.data.reset(grown);
    response.capacity = capacity;
    return true;
}

static size_t writeResponseCallback(char* chunk, size_t size, size_t count, void* buffer) {
    ResponseBuffer& response = *static_cast<ResponseBuffer*>(buffer);
    const size_t n = size * count;  // cannot overflow: libcurl's size is always 1
    const size_t room = UINT32_MAX - 1 - response.length;
    const bool fits = n <= room && (response.length + n + 1 <= response.capacity ||
                                    growResponse(response, static_cast<uint32_t>(response.length + n + 1)));
    if (!fits) {
        response = {};
        return 0;
    }
    memcpy(response.data.get() + response.length, chunk, n);
    response.length += static_cast<uint32_t>(n);
    return n;
}

static void setCommonOptions(CURL* handle, const char* uri, const char* method, const char* caBundle) {
    curl_easy_setopt(handle, CURLOPT_URL, uri);
    // Set for every method. So a redirected POST stays a POST: after 307 and 308 with its body, after 301, 302 and 303
    // without it.
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    if (!caBundle) {
        LOG(WARN, "CA bundle file not set");
    } else if (curl_easy_setopt(handle, CURLOPT_CAINFO, caBundle) != CURLE_OK) {
        LOG(ERROR, "Cannot set CA bundle file");
    }
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, KConnectTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, KTransferTimeoutSeconds);
}

static bool appendHeader(HeaderList& list, const char* name, const char* value) {
    const OwnedText line = formatText("%s: %s", name, value);
    if (!line) {
        LOG(ERROR, "Out of memory");
        return false;
    }
    LOG(DEBUG, "Adding header: %s", line.get());
    curl_slist* const longer = curl_slist_append(list.get(), line.get());
    if (!longer) {
        LOG(ERROR, "Cannot allocate memory for header");
        return false;
    }
    (void)list.release();  // the longer list starts with it
    list.reset(longer);
    return true;
}

static bool setHeaders(CURL* handle, const cJSON* headers, HeaderList& list) {
    const cJSON* member = nullptr;
    cJSON_ArrayForEach(member, headers) {
        // A member without a name or a text value cannot be sent. The request is not sent without it, either: the
        // caller asked for that header.
        if (!member->string || !cJSON_IsString(member)) {
            LOG(ERROR, "Header is not a string: %s", textOrEmpty(member->string));
            return false;
        }
        if (!appendHeader(list, member->string, member->valuestring)) return false;
    }
    if (!list) return true;
    if (curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list.get()) != CURLE_OK) {
        LOG(ERROR, "Cannot set headers");
        return false;
    }
    return true;
}

// Whether reading it could wait for ever: libcurl opens the bundle as it is, and its time limits do not hold there.
static bool isPipeOrDevice(const char* path) {
    struct stat status = {};
    return stat(path, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode));
}

static CURLcode transfer(CURL* handle) {
    // Read the resolver configuration again: it may have changed since the daemon started.
    if (res_init() != 0) LOG(WARN, "res_init() call failed");
    // Until the end of the scope this thread uses only the handle, the header list and the body.
    const OutsideGate outside;
    return curl_easy_perform(handle);
}

static OwnedText performRequest(const char* uri, const char* method, const char* caBundle, const PostContent* post) {
    if (!uri || !*uri) {
        LOG(ERROR, "Empty URI passed");
        return nullptr;
    }
    LOG(INFO, "URI: %s", uri);
    if (post && post->body) LOG(DEBUG, "Post data: %s", post->body);
    if (caBundle && isPipeOrDevice(caBundle)) {
        LOG(ERROR, "CA bundle file is a pipe or a device: %s", caBundle);
        return nullptr;
    }

    HeaderList headers;
    const Handle handle(curl_easy_init());
    if (!handle) {
        LOG(ERROR, "Cannot init curl");
        return nullptr;
    }
    setCommonOptions(handle.get(), uri, method, caBundle);
    if (post) {
        // Without a body libcurl would read one from standard input.
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, textOrEmpty(post->body));
        if (!setHeaders(handle.get(), post->headers, headers)) return nullptr;
    }

    ResponseBuffer response = {};
    if (!growResponse(response, KFirstCapacity)) {
        LOG(ERROR, "Cannot allocate memory");
        return nullptr;
    }
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, writeResponseCallback);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &response);

    const CURLcode result = transfer(handle.get());
    if (result != CURLE_OK) {
        LOG(ERROR, "Request error %d: %s", static_cast<int>(result), curl_easy_strerror(result));
        return nullptr;
    }
    LOG(INFO, "Request OK");
    response.data.get()[response.length] = '\0';
    LOG(DEBUG, "Response body: %s", response.data.get());
    return std::move(response.data);
}

OwnedText curlRequest(const char* uri, const char* method, const char* caBundle) {
    LOG(INFO, "Curl HTTP %s begin", method);
    OwnedText answer = performRequest(uri, method, caBundle, nullptr);
    if (answer) LOG(INFO, "Curl HTTP %s success", method);
    return answer;
}

OwnedText curlGet(const char* uri, const char* caBundle) { return curlRequest(uri, "GET", caBundle); }

OwnedText curlPostV1(const char* uri, const char* body, const char* caBundle, const cJSON* headers) {
    LOG(INFO, "Curl HTTP POST begin");
    const PostContent post = {body, headers};
    OwnedText answer = performRequest(uri, "POST", caBundle, &post);
    if (answer) LOG(INFO, "Curl HTTP POST success");
    return answer;
}

OwnedText curlPostV2(const char* uri, const char* body, const char* caBundle, const char* headersText) {
    const OwnedJson headers = parseJson(headersText);
    if (!headers) {
        LOG(ERROR, "Unable to parse json with headers");
        return nullptr;
    }
    return curlPostV1(uri, body, caBundle, headers.get());
}
