// cloud-sim: plays the application server and the smart-plug cloud over HTTPS, with a throwaway authority and with
// every fault that a server can have, and takes orders over a plain HTTP endpoint.
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <stdexcept>

#include "simulator/cloud-sim/orders.h"
#include "simulator/cloud-sim/tls_server.h"

using namespace cloudsim;

static constexpr char KUsage[] =
    "usage: cloud-sim --dir DIR [--host-name NAME]   serves until SIGTERM; DIR gets ca.pem, journal, control and url\n"
    "       cloud-sim --control DIR ORDER...         sends an order, such as: fault get http500 2\n"
    "       cloud-sim --help                         all orders\n";

// In one step, so that who waits for the file finds it whole.
static void writeFile(const std::string& path, const std::string& content) {
    const std::string unfinished = path + ".new";
    std::ofstream file(unfinished, std::ios::binary);
    file << content;
    file.close();
    if (!file || rename(unfinished.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot write " + path);
}

// A server that listens on a port that the kernel chose, in a thread of its own, until it goes out of scope.
class Listening {
  public:
    explicit Listening(httplib::Server& server) : server_(server), port_(server.bind_to_any_port("127.0.0.1")) {
        if (port_ <= 0) throw std::runtime_error("cannot listen on 127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::yield();
        }
    }
    ~Listening() {
        server_.stop();
        thread_.join();
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    std::string port() const { return std::to_string(port_); }

  private:
    httplib::Server& server_;
    int port_;
    std::thread thread_;
};

static void waitForSignal(const sigset_t& signals) {
    int number = 0;
    while (sigwait(&signals, &number) != 0) {
    }
}

static int serve(const std::string& directory, const std::string& hostName) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT}) {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before any thread: all are to inherit it
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) throw std::runtime_error("cannot make " + directory);
    remove((directory + "/url").c_str());
    const Certificates certificates(hostName);
    writeFile(directory + "/ca.pem", certificates.authority());

    Cloud cloud;
    cloud.directory = directory;
    TlsServer server(cloud, certificates);
    httplib::Server orders;
    orders.set_keep_alive_max_count(1);
    orders.set_keep_alive_timeout(1);
    serveOrders(orders, cloud);
    {
        const Listening listening(server);
        const Listening listeningForOrders(orders);
        const std::string url = "https://" + hostName + ":" + listening.port();
        {
            const std::lock_guard lock(cloud.mutex);
            cloud.url = url;
        }
        writeFile(directory + "/control", "http://127.0.0.1:" + listeningForOrders.port());
        writeFile(directory + "/url", url);
        printf("cloud-sim: serves %s\n", url.c_str());
        waitForSignal(signals);
        {
            const std::lock_guard lock(cloud.mutex);
            cloud.stopping = true;
            cloud.changed.notify_all();
        }
        server.closeConnections();
    }
    return 0;
}

static int run(const Words& arguments) {
    const size_t count = arguments.size();
    if (count == 1 && arguments[0] == "--help") {
        std::cout << KUsage << ordersHelp();
        return 0;
    }
    if (count > 2 && arguments[0] == "--control") {
        return sendOrder(arguments[1], Words(arguments.begin() + 2, arguments.end()));
    }
    if (count == 2 && arguments[0] == "--dir") return serve(arguments[1], "127.0.0.1");
    if (count == 4 && arguments[0] == "--dir" && arguments[2] == "--host-name") {
        return serve(arguments[1], arguments[3]);
    }
    std::cerr << KUsage;
    return 1;
}

int main(int argc, char** argv) {
    try {
        return run(Words(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        std::cerr << "cloud-sim: " << error.what() << "\n";
        return 1;
    }
}
