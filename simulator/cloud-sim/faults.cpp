#include "simulator/cloud-sim/faults.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace cloudsim {

std::string quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < ' ') {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

size_t toNumber(const std::string& word, size_t least, size_t most) {
    size_t number = 0;
    const char* const wordEnd = word.data() + word.size();
    const auto [end, error] = std::from_chars(word.data(), wordEnd, number);
    if (error == std::errc() && end == wordEnd && number >= least && number <= most) return number;
    throw std::invalid_argument(word.substr(0, 30) + " is no number from " + std::to_string(least) + " to " +
                                std::to_string(most));
}

static std::string valueOr(const Words& values, size_t index, const char* otherwise) {
    return index < values.size() ? values[index] : otherwise;
}

static size_t numberOr(const Words& values, size_t otherwise) {
    return values.empty() ? otherwise : toNumber(values[0]);
}

static int toStatus(const std::string& word) { return static_cast<int>(toNumber(word, 100, 599)); }

// Puts a member in front of those that a JSON object has.
static void putInFront(std::string& object, const std::string& member) {
    if (object.size() >= 2) object.insert(1, object[1] == '}' ? member : member + ',');
}

static void raiseMemberNames(std::string& object) {
    for (size_t end = object.find("\":"); end != std::string::npos; end = object.find("\":", end + 1)) {
        const size_t begin = object.rfind('"', end - 1);
        std::transform(object.begin() + static_cast<ptrdiff_t>(begin), object.begin() + static_cast<ptrdiff_t>(end),
                       object.begin() + static_cast<ptrdiff_t>(begin), toupper);
    }
}

static constexpr char KJson[] = "application/json";

static void answer(Exchange& exchange, int status, std::string body, const char* contentType = "text/html") {
    exchange.status = status;
    exchange.body = std::move(body);
    exchange.contentType = contentType;
}

static void redirect(Exchange& exchange, int status, const std::string& location) {
    answer(exchange, status, "");
    exchange.headers.emplace_back("Location", location);
}

static void putStatus(Exchange& e, const Words& values) {
    const std::string error = values.size() > 1 ? ",\"error\":" + quote(values[1]) : "";
    answer(e, 200, "{\"status\":" + quote(valueOr(values, 0, "INTERNAL_ERROR")) + error + "}", KJson);
}

static void putHttp500(Exchange& e, const Words&) { answer(e, 500, R"({"status":"INTERNAL_ERROR"})", KJson); }
static void putHttp500Text(Exchange& e, const Words&) { answer(e, 500, "<h1>Internal Server Error</h1>\n"); }
static void putHttp404(Exchange& e, const Words&) { answer(e, 404, R"({"status":"NOT_FOUND"})", KJson); }
static void putHttp204(Exchange& e, const Words&) { answer(e, 204, ""); }
static void putNotJson(Exchange& e, const Words&) { answer(e, 200, "busy, try later"); }
static void putEmpty(Exchange& e, const Words&) { answer(e, 200, ""); }
static void putBody(Exchange& e, const Words& values) { answer(e, toStatus(values[0]), values[1], KJson); }
static void putRaw(Exchange& e, const Words& values) { e.raw = values[0]; }

static void putLarge(Exchange& e, const Words& values) {
    putInFront(e.body, "\"padding\":\"" + std::string(numberOr(values, 4 << 20), 'x') + '"');
}

static void putNested(Exchange& e, const Words& values) {
    const size_t arrays = std::max(numberOr(values, 1001), size_t{2}) - 1;
    putInFront(e.body, "\"nested\":" + std::string(arrays, '[') + std::string(arrays, ']'));
}

static void putDuplicate(Exchange& e, const Words&) { putInFront(e.body, R"("status":"DUPLICATE")"); }
static void putUpperCase(Exchange& e, const Words&) { raiseMemberNames(e.body); }
static void putByteOrderMark(Exchange& e, const Words&) { e.body.insert(0, "\xEF\xBB\xBF"); }
static void putZeroByte(Exchange& e, const Words&) { e.body.insert(e.body.size() / 2, 1, '\0'); }

static void putLongHeader(Exchange& e, const Words& values) {
    e.headers.emplace_back("X-Filler", std::string(numberOr(values, 100 << 10), 'x'));
}

static void putRedirect(Exchange& e, const Words& values) {
    redirect(e, values.empty() ? 302 : toStatus(values[0]), e.url + "/moved" + e.target);
}

static void putRedirectLoop(Exchange& e, const Words&) { redirect(e, 302, e.url + e.target); }
static void putRedirectFile(Exchange& e, const Words&) { redirect(e, 302, "file:///etc/hostname"); }
static void putHold(Exchange& e, const Words&) { e.held = true; }
static void putDelay(Exchange& e, const Words& values) { e.delay = std::chrono::milliseconds(numberOr(values, 1000)); }

static void putTrickle(Exchange& e, const Words& values) {
    e.byteInterval = std::chrono::milliseconds(numberOr(values, 1000));
}

static void putClose(Exchange& e, const Words&) { e.ending = Ending::NoHeaders; }
static void putHalf(Exchange& e, const Words&) { e.ending = Ending::HalfBody; }
static void putShort(Exchange& e, const Words&) { e.ending = Ending::ShortBody; }
static void putBrokenChunk(Exchange& e, const Words&) { e.ending = Ending::BrokenChunk; }

static constexpr char KFile[] = "@FILE";
static constexpr FaultKind KFaultKinds[] = {
    {"status",          "[STATUS [ERROR]]",  "an error status in the JSON",                       putStatus       },
    {"http500",         "",                  "HTTP 500 with JSON",                                putHttp500      },
    {"http500-text",    "",                  "HTTP 500 without JSON",                             putHttp500Text  },
    {"http404",         "",                  "HTTP 404 with JSON",                                putHttp404      },
    {"http204",         "",                  "HTTP 204",                                          putHttp204      },
    {"not-json",        "",                  "a body that is not JSON",                           putNotJson      },
    {"empty",           "",                  "an empty body",                                     putEmpty        },
    {"body",            "STATUS BODY|@FILE", "this HTTP status and these bytes",                  putBody         },
    {"raw",             "BYTES|@FILE",       "these bytes as the whole answer, headers included", putRaw          },
    {"large",           "[BYTES]",           "the answer with a padding of 4 MiB in front",       putLarge        },
    {"nested",          "[LEVELS]",          "the answer nested 1001 deep",                       putNested       },
    {"duplicate",       "",                  "another \"status\" in front of the true one",       putDuplicate    },
    {"upper-case",      "",                  "the answer with member names in upper case",        putUpperCase    },
    {"byte-order-mark", "",                  "the answer behind a byte order mark",               putByteOrderMark},
    {"zero-byte",       "",                  "the answer with a zero byte in its middle",         putZeroByte     },
    {"long-header",     "[BYTES]",           "the answer behind a header of 100 KiB",             putLongHeader   },
    {"redirect",        "[STATUS]",          "302 to an address that answers, without faults",    putRedirect     },
    {"redirect-loop",   "",                  "302 to itself; order it with count 0",              putRedirectLoop },
    {"redirect-file",   "",                  "302 to a file",                                     putRedirectFile },
    {"hold",            "",                  "the answer, held until the order release",          putHold         },
    {"delay",           "[MS]",              "the answer after 1000 ms",                          putDelay        },
    {"trickle",         "[MS]",              "the answer one byte at a time, 1000 ms apart",      putTrickle      },
    {"close",           "",                  "closed before the first byte",                      putClose        },
    {"half",            "",                  "closed half way through the body",                  putHalf         },
    {"short",           "",                  "half of the announced body, properly closed",       putShort        },
    {"broken-chunk",    "",                  "a chunked body that breaks off",                    putBrokenChunk  },
};

static constexpr ConnectionKind KConnectionKinds[] = {
    {"good",          "a good one, before a faulty one",        ConnectionFault::None,  Certificate::Good            },
    {"reset",         "reset before the handshake",             ConnectionFault::Reset, Certificate::Good            },
    {"stall",         "a handshake that ends with the release", ConnectionFault::Stall, Certificate::Good            },
    {"unknown-ca",    "a certificate of an unknown authority",  ConnectionFault::None,  Certificate::UnknownAuthority},
    {"expired",       "a certificate of the past",              ConnectionFault::None,  Certificate::Expired         },
    {"not-yet-valid", "a certificate of the future",            ConnectionFault::None,  Certificate::NotYetValid     },
    {"wrong-host",    "another host's certificate",             ConnectionFault::None,  Certificate::WrongHost       },
};

std::span<const FaultKind> faultKinds() { return KFaultKinds; }
std::span<const ConnectionKind> connectionKinds() { return KConnectionKinds; }

bool takesFile(const std::string& kind) {
    return std::any_of(std::begin(KFaultKinds), std::end(KFaultKinds),
                       [&](const FaultKind& row) { return row.name == kind && strstr(row.values, KFile); });
}

template <class Kind>
static const Kind* find(std::span<const Kind> kinds, const std::string& name) {
    const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const Kind& kind) { return kind.name == name; });
    if (found == kinds.end()) throw std::invalid_argument("there is no fault " + name + " here");
    return &*found;
}

// So that a value that cannot be used is refused now, and not at the request.
static void rehearse(const FaultKind& kind, const Words& values) {
    const std::string_view all = kind.values;
    const std::string_view required = all.substr(0, all.find('['));
    const auto most = static_cast<size_t>(std::count(all.begin(), all.end(), ' ')) + !all.empty();
    const auto least = static_cast<size_t>(std::count(required.begin(), required.end(), ' ')) + !required.empty();
    const std::string usage = std::string("the fault ") + kind.name + " takes " + (most ? kind.values : "no value");
    if (values.size() < least || values.size() > most) throw std::invalid_argument(usage);
    Exchange exchange;
    try {
        kind.apply(exchange, values);
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument(usage + ": " + error.what());
    }
}

void FaultQueues::order(const std::string& resource, const std::string& kind, unsigned count, Words values) {
    if (resource == KConnection) {
        (void)find(connectionKinds(), kind);
        if (!values.empty()) throw std::invalid_argument("the fault " + kind + " takes no value");
    } else {
        rehearse(*find(faultKinds(), kind), values);
    }
    orders_[resource].push_back({kind, count, std::move(values)});
}

void FaultQueues::clear(const std::string& resource) {
    if (resource.empty()) {
        orders_.clear();
    } else {
        orders_.erase(resource);
    }
}

std::optional<FaultQueues::Order> FaultQueues::take(const std::string& resource) {
    const auto found = orders_.find(resource);
    if (found == orders_.end() || found->second.empty()) return std::nullopt;
    Order& first = found->second.front();
    if (first.left != 1) {
        if (first.left > 1) --first.left;
        return first;
    }
    Order last = std::move(first);
    found->second.pop_front();
    return last;
}

void FaultQueues::apply(const std::string& resource, Exchange& exchange) {
    const std::optional<Order> order = take(resource);
    if (!order) return;
    find(faultKinds(), order->kind)->apply(exchange, order->values);
    exchange.fault = order->kind;
}

const ConnectionKind* FaultQueues::nextOfConnection() {
    const std::optional<Order> order = take(KConnection);
    return order ? find(connectionKinds(), order->kind) : nullptr;
}

std::string FaultQueues::describe() const {
    std::string lines;
    for (const auto& [resource, orders] : orders_) {
        for (const Order& order : orders) {
            lines += "fault " + resource + " " + order.kind + " " + std::to_string(order.left) + "\n";
        }
    }
    return lines;
}

}  // namespace cloudsim
