// The orders by which tests and scripts steer the servers: a table, the plain HTTP endpoint that carries it out, and
// the command line that speaks to the endpoint.
#pragma once

#include <httplib.h>

#include <string>

#include "simulator/cloud-sim/cloud.h"

namespace cloudsim {

/// Lets `server` carry out orders on `cloud`: GET /WORD/WORD..., each word percent-encoded, or a POST whose body holds
/// each word after its length and a colon, such as "4:take6:office". Answers 200 and the order's output, or 400 and
/// what is wrong with it.
void serveOrders(httplib::Server& server, Cloud& cloud);

/// Sends an order to the endpoint of the servers in `directory`; the last value of the faults that
/// take one may be @FILE, the bytes of that file. Prints the output; the exit status. Throws when it cannot read FILE.
int sendOrder(const std::string& directory, Words words);

/// All orders, resources and faults, for people.
std::string ordersHelp();

}  // namespace cloudsim
