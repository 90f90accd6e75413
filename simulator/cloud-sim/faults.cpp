#include "simulator/cloud-sim/faults.h"

#include <algorithm>
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

static std::string valueOr(const Words& values, size_t index, const char* otherwise) {
    return index < values.size() ? values[index] : otherwise;
}

static std::chrono::milliseconds millisecondsOr(const Words& values, const char* otherwise) {
    return std::chrono::milliseconds(std::stoul(valueOr(values, 0, otherwise)));
}

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

static void answerText(Exchange& exchange, int status, std::string body, const char* contentType = "text/html") {
    exchange.status = status;
    exchange.body = std::move(body);
    exchange.contentType = contentType;
}

static void redirect(Exchange& exchange, int status, const std::string& location) {
    answerText(exchange, status, "");
    exchange.headers.emplace_back("Location", location);
}

static constexpr char KJson[] = "application/json";

static constexpr FaultKind KFaultKinds[] = {
    {"status",          "[STATUS [ERROR]]", "an error status in the JSON",
     [](Exchange& e,                                                                                                                    const Words& v) {
         const std::string error = v.size() > 1 ? ",\"error\":" + quote(v[1]) : "";
         e.body = "{\"status\":" + quote(valueOr(v, 0, "INTERNAL_ERROR")) + error + "}";
     }                                                                                                                                                                                                            },
    {"http500",         "",                 "HTTP 500 with JSON",
     [](Exchange& e,                                                                                                                    const Words&) { answerText(e, 500, R"({"status":"INTERNAL_ERROR"})", KJson); }                },
    {"http500-text",    "",                 "HTTP 500 without JSON",
     [](Exchange& e,                                                                                                                    const Words&) { answerText(e, 500, "<h1>Internal Server Error</h1>\n"); }                     },
    {"http404",         "",                 "HTTP 404 with JSON",
     [](Exchange& e,                                                                                                                    const Words&) { answerText(e, 404, R"({"status":"NOT_FOUND"})", KJson); }                     },
    {"http204",         "",                 "HTTP 204",                                                                 [](Exchange& e, const Words&) { answerText(e, 204, ""); }                                                     },
    {"not-json",        "",                 "a body that is not JSON",
     [](Exchange& e,                                                                                                                    const Words&) { answerText(e, 200, "busy, try later"); }                                      },
    {"empty",           "",                 "an empty body",                                                            [](Exchange& e, const Words&) { answerText(e, 200, ""); }                                                     },
    {"body",            "STATUS BODY",      "this HTTP status and these bytes",
     [](Exchange& e,                                                                                                                    const Words& v) { answerText(e, std::stoi(v.at(0)), v.at(1), KJson); }                        },
    {"raw",             "BYTES",            "these bytes instead of the whole answer, headers included",
     [](Exchange& e,                                                                                                                    const Words& v) { e.raw = v.at(0); }                                                          },
    {"large",           "[BYTES]",          "the true answer with a padding of 4 MiB or BYTES in front of its members",
     [](Exchange& e,                                                                                                                    const Words& v) {
         const size_t size = std::stoul(valueOr(v, 0, "4194304"));
         putInFront(e.body, "\"padding\":\"" + std::string(size, 'x') + '"');
     }                                                                                                                                                                                                            },
    {"nested",          "[LEVELS]",         "the true answer nested 1001 or LEVELS deep",
     [](Exchange& e,                                                                                                                    const Words& v) {
         const size_t arrays = std::stoul(valueOr(v, 0, "1001")) - 1;
         putInFront(e.body, "\"nested\":" + std::string(arrays, '[') + std::string(arrays, ']'));
     }                                                                                                                                                                                                            },
    {"duplicate",       "",                 "another \"status\" in front of the true one",
     [](Exchange& e,                                                                                                                    const Words&) { putInFront(e.body, R"("status":"DUPLICATE")"); }                              },
    {"upper-case",      "",                 "the true answer with its member names in upper case",
     [](Exchange& e,                                                                                                                    const Words&) { raiseMemberNames(e.body); }                                                   },
    {"byte-order-mark", "",                 "the true answer behind a byte order mark",
     [](Exchange& e,                                                                                                                    const Words&) { e.body.insert(0, "\xEF\xBB\xBF"); }                                           },
    {"zero-byte",       "",                 "the true answer with a zero byte in its middle",
     [](Exchange& e,                                                                                                                    const Words&) { e.body.insert(e.body.size() / 2, 1, '\0'); }                                  },
    {"long-header",     "[BYTES]",          "a header of 100 KB or BYTES",
     [](Exchange& e,                                                                                                                    const Words& v) {
         e.headers.emplace_back("X-Filler", std::string(std::stoul(valueOr(v, 0, "102400")), 'x'));
     }                                                                                                                                                                                                            },
    {"redirect",        "[STATUS]",         "302 or STATUS to another address that serves the same, without faults",
     [](Exchange& e,                                                                                                                    const Words& v) { redirect(e, std::stoi(valueOr(v, 0, "302")), e.url + "/moved" + e.target); }},
    {"redirect-loop",   "",                 "302 to itself; order it with count 0",
     [](Exchange& e,                                                                                                                    const Words&) { redirect(e, 302, e.url + e.target); }                                         },
    {"redirect-file",   "",                 "302 to a file",                                                            [](Exchange& e, const Words&) { redirect(e, 302, "file:///etc/hostname"); }                                   },
    {"hold",            "",                 "the true answer, held until the order release",                            [](Exchange& e, const Words&) { e.held = true; }                                                              },
    {"delay",           "MS",               "the true answer after so long",
     [](Exchange& e,                                                                                                                    const Words& v) { e.delay = millisecondsOr(v, "1000"); }                                      },
    {"trickle",         "[MS]",             "the true answer one byte at a time, 1000 or MS milliseconds apart",
     [](Exchange& e,                                                                                                                    const Words& v) { e.byteInterval = millisecondsOr(v, "1000"); }                               },
    {"close",           "",                 "closed before the first byte",                                             [](Exchange& e, const Words&) { e.ending = Ending::NoHeaders; }                                               },
    {"half",            "",                 "closed half way through the body",                                         [](Exchange& e, const Words&) { e.ending = Ending::HalfBody; }                                                },
    {"short",           "",                 "half of the announced body, then properly closed",
     [](Exchange& e,                                                                                                                    const Words&) { e.ending = Ending::ShortBody; }                                               },
    {"broken-chunk",    "",                 "a chunked body that breaks off",
     [](Exchange& e,                                                                                                                    const Words&) { e.ending = Ending::BrokenChunk; }                                             },
};

static constexpr ConnectionKind KConnectionKinds[] = {
    {"reset",         "reset before the handshake",             ConnectionFault::Reset, Certificate::Good            },
    {"stall",         "a handshake that ends with the release", ConnectionFault::Stall, Certificate::Good            },
    {"unknown-ca",    "a certificate of an unknown authority",  ConnectionFault::None,  Certificate::UnknownAuthority},
    {"expired",       "a certificate of the past",              ConnectionFault::None,  Certificate::Expired         },
    {"not-yet-valid", "a certificate of the future",            ConnectionFault::None,  Certificate::NotYetValid     },
    {"wrong-host",    "another host's certificate",             ConnectionFault::None,  Certificate::WrongHost       },
};

std::span<const FaultKind> faultKinds() { return KFaultKinds; }
std::span<const ConnectionKind> connectionKinds() { return KConnectionKinds; }

template <class Kind>
static const Kind* find(std::span<const Kind> kinds, const std::string& name) {
    const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const Kind& kind) { return kind.name == name; });
    if (found == kinds.end()) throw std::invalid_argument("there is no fault " + name + " here");
    return &*found;
}

void FaultQueues::order(const std::string& resource, const std::string& kind, unsigned count, Words values) {
    if (resource == KConnection) {
        (void)find(connectionKinds(), kind);
    } else {
        const FaultKind* const row = find(faultKinds(), kind);
        Exchange rehearsal;  // so that a value that cannot be used is refused now, and not at the request
        try {
            row->apply(rehearsal, values);
        } catch (const std::logic_error&) {
            throw std::invalid_argument("the fault " + kind + " takes " + row->values);
        }
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
