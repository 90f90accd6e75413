// The orders by which tests and scripts steer the servers: a table, the plain HTTP endpoint that carries it out, and
// the command line that speaks to the endpoint.
#pragma once

#include <httplib.h>

#include <string>

#include "simulator/cloud-sim/cloud.h"

namespace cloudsim {

/// Lets `server` carry out orders on `cloud`: POST or GET /WORD/WORD..., each word percent-encoded; a body is the last
/// word as it is. Answers 200 and the order's output, or 400 and what is wrong with it.
void serveOrders(httplib::Server& server, Cloud& cloud);

/// Sends an order to the endpoint of the servers in `directory`; the last word of a fault may be @FILE,
/// the bytes of that file. Prints the output; the exit status.
int sendOrder(const std::string& directory, Words words);

/// All orders, resources and faults, for people.
std::string ordersHelp();

}  // namespace cloudsim
