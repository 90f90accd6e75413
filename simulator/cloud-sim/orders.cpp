#include "simulator/cloud-sim/orders.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "common/json/json.h"

namespace cloudsim {

static std::string readAll(std::istream& stream) {
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

static bool toBool(const Words& words, size_t index, bool otherwise) {
    if (index >= words.size()) return otherwise;
    if (words[index] != "true" && words[index] != "false") throw std::invalid_argument("neither true nor false");
    return words[index] == "true";
}

static void checkResource(const std::string& name) {
    const auto all = resources();
    if (name == KConnection || std::any_of(all.begin(), all.end(), [&](const auto& r) { return r.name == name; }))
        return;
    throw std::invalid_argument("there is no resource " + name);
}

static std::string orderRegister(Cloud& cloud, const Words& words) {
    cloud.state.registrations[words[1]] = {words[2], toBool(words, 3, true)};
    return "";
}

static std::string orderForget(Cloud& cloud, const Words& words) {
    cloud.state.registrations.erase(words[1]);
    return "";
}

static std::string orderTake(Cloud& cloud, const Words& words) {
    cloud.state.takenNames.insert(words[1]);
    return "";
}

static std::string orderFree(Cloud& cloud, const Words& words) {
    cloud.state.takenNames.erase(words[1]);
    return "";
}

static std::string orderAccount(Cloud& cloud, const Words& words) {
    cloud.state.accounts[words[1]] = {words[2], words[3]};
    return "";
}

static std::string orderUnpair(Cloud& cloud, const Words& words) {
    cloud.state.accounts.erase(words[1]);
    return "";
}

static std::string orderPlug(Cloud& cloud, const Words& words) {
    if (!parseJson(words[3].c_str())) throw std::invalid_argument("POWER is not JSON");
    cloud.state.plugs.insert_or_assign(
        words[1], Plug{words[2], words[3], toBool(words, 4, true), toBool(words, 5, true), words[3]});
    return "";
}

static std::string orderFault(Cloud& cloud, const Words& words) {
    checkResource(words[1]);
    const unsigned count = words.size() > 3 ? static_cast<unsigned>(toNumber(words[3])) : 1;
    Words values;
    for (size_t i = 4; i < words.size(); ++i) {
        values.push_back(words[i]);
    }
    cloud.faults.order(words[1], words[2], count, std::move(values));
    return "";
}

static std::string orderClear(Cloud& cloud, const Words& words) {
    if (words.size() > 1) checkResource(words[1]);
    cloud.faults.clear(words.size() > 1 ? words[1] : "");
    return "";
}

static std::string orderRelease(Cloud& cloud, const Words&) {
    ++cloud.releases;
    cloud.changed.notify_all();
    return "";
}

static std::string orderShow(Cloud& cloud, const Words&) {
    static constexpr const char* KTruth[] = {"false", "true"};
    std::ostringstream lines;
    for (const auto& [haId, registration] : cloud.state.registrations) {
        lines << "registration " << haId << " " << registration.name << " " << KTruth[registration.enabled] << "\n";
    }
    for (const std::string& name : cloud.state.takenNames) {
        lines << "taken " << name << "\n";
    }
    for (const auto& [haId, account] : cloud.state.accounts) {
        lines << "account " << haId << " " << account.email << "\n";
    }
    for (const auto& [id, plug] : cloud.state.plugs) {
        lines << "plug " << id << " " << plug.state << " " << plug.power << " " << KTruth[plug.connected] << " "
              << KTruth[plug.switchable] << "\n";
    }
    lines << cloud.faults.describe() << "held " << cloud.held << "\n";
    return lines.str();
}

static std::string orderJournal(Cloud& cloud, const Words&) {
    std::ifstream file(cloud.directory + "/journal", std::ios::binary);
    return readAll(file);
}

static std::string orderHelp(Cloud&, const Words&) { return ordersHelp(); }

struct Order {
    const char* name;
    const char* arguments;
    const char* help;
    size_t least, most;  // words, the order itself included
    std::string (*carryOut)(Cloud& cloud, const Words& words);
};

static constexpr Order KOrders[] = {
    {"register", "HAID NAME [true|false]",                  "a registration, enabled or not",   3, 4,  orderRegister},
    {"forget",   "HAID",                                    "no registration",                  2, 2,  orderForget  },
    {"take",     "NAME",                                    "a name that is taken by others",   2, 2,  orderTake    },
    {"free",     "NAME",                                    "and not any more",                 2, 2,  orderFree    },
    {"account",  "HAID EMAIL PASSWORD",                     "pairs a smart-plug account",       4, 4,  orderAccount },
    {"unpair",   "HAID",                                    "no account",                       2, 2,  orderUnpair  },
    {"plug",     "ID STATE POWER [CONNECTED [SWITCHABLE]]", "a plug; POWER is JSON",            4, 6,  orderPlug    },
    {"fault",    "RESOURCE KIND [COUNT [VALUE...]]",        "for COUNT requests (1; 0: all)",   3, 99, orderFault   },
    {"clear",    "[RESOURCE]",                              "no fault any more",                1, 2,  orderClear   },
    {"release",  "",                                        "lets go what is held",             1, 1,  orderRelease },
    {"show",     "",                                        "what is known, and what waits",    1, 1,  orderShow    },
    {"journal",  "",                                        "all requests so far, a line each", 1, 1,  orderJournal },
    {"help",     "",                                        "this text",                        1, 1,  orderHelp    },
};

std::string ordersHelp() {
    std::ostringstream text;
    text << "Orders:\n";
    for (const Order& order : KOrders) {
        text << "  " << order.name << " " << order.arguments << "\n        " << order.help << "\n";
    }
    text << "Resources:\n ";
    for (const Resource& resource : resources()) {
        text << " " << resource.name;
    }
    text << " " << KConnection << "\nFaults of a resource:\n";
    for (const FaultKind& kind : faultKinds()) {
        text << "  " << kind.name << " " << kind.values << "\n        " << kind.help << "\n";
    }
    text << "Faults of a " << KConnection << ":\n";
    for (const ConnectionKind& kind : connectionKinds()) {
        text << "  " << kind.name << "\n        " << kind.help << "\n";
    }
    return text.str();
}

static std::string carryOut(Cloud& cloud, const Words& words) {
    for (const Order& order : KOrders) {
        if (words.empty() || words[0] != order.name) continue;
        if (words.size() < order.least || words.size() > order.most) {
            throw std::invalid_argument(std::string("usage: ") + order.name + " " + order.arguments);
        }
        const std::lock_guard lock(cloud.mutex);
        return order.carryOut(cloud, words);
    }
    throw std::invalid_argument("unknown order; try help");
}

// The words of a path such as /show, each percent-encoded.
static Words wordsOfPath(const std::string& path) {
    Words words;
    size_t end = 0;
    do {
        const size_t begin = end + 1;
        end = path.find('/', begin);
        words.push_back(httplib::detail::decode_url(path.substr(begin, end - begin), false));
    } while (end != std::string::npos);
    return words;
}

// In a body each word follows its length and a colon: words may be long, and hold any byte.
static Words wordsOfBody(const std::string& body) {
    Words words;
    size_t begin = 0;
    while (begin < body.size()) {
        const size_t colon = std::min(body.find(':', begin), body.size());
        const size_t length = toNumber(body.substr(begin, colon - begin));
        begin = colon + 1;
        if (begin > body.size() || length > body.size() - begin) throw std::invalid_argument("a word is cut short");
        words.push_back(body.substr(begin, length));
        begin += length;
    }
    return words;
}

static std::string bodyOf(const Words& words) {
    std::string body;
    for (const std::string& word : words) {
        body += std::to_string(word.size()) + ":" + word;
    }
    return body;
}

static void refuse(httplib::Response& response, const char* reason) {
    response.status = 400;
    response.set_content(reason, "text/plain");
}

void serveOrders(httplib::Server& server, Cloud& cloud) {
    const auto handler = [&cloud](const httplib::Request& request, httplib::Response& response) {
        try {
            const bool post = request.method == "POST";
            const Words words = post ? wordsOfBody(request.body) : wordsOfPath(request.target);
            response.set_content(carryOut(cloud, words), "text/plain");
        } catch (const std::bad_alloc&) {
            refuse(response, "memory is short");
        } catch (const std::exception& error) {
            refuse(response, error.what());
        }
    };
    server.Get(".*", handler);
    server.Post(".*", handler);
}

// Puts the bytes of a file in the place of the word @FILE.
static void readFileOf(std::string& word) {
    const std::string name = word.substr(1);
    std::ifstream file(name, std::ios::binary);
    file.peek();  // a folder can be opened, but not read
    if (!file.is_open() || file.bad()) throw std::runtime_error("cannot read " + name);
    word = readAll(file);
}

int sendOrder(const std::string& directory, Words words) {
    std::string url;
    std::ifstream file(directory + "/control");
    if (!std::getline(file, url)) {
        std::cerr << "cloud-sim: no servers run in " << directory << "\n";
        return 1;
    }
    const bool valued = words.size() > 4 && words[0] == "fault";
    if (valued && takesFile(words[2]) && words.back().starts_with('@')) readFileOf(words.back());
    httplib::Client client(url);
    const httplib::Result result = client.Post("/", bodyOf(words), "application/octet-stream");
    if (!result) {
        std::cerr << "cloud-sim: no answer from " << url << "\n";
        return 1;
    }
    if (result->status == 200) {
        std::cout << result->body;
        return 0;
    }
    const std::string& reason = result->body;
    std::cerr << "cloud-sim: " << (reason.empty() ? "refused, HTTP " + std::to_string(result->status) : reason) << "\n";
    return 1;
}

}  // namespace cloudsim
