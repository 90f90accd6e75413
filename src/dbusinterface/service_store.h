// The daemon's own object tree in the data model: the bus thread's way to it, and its file.
#pragma once

#include "pcblib/pcbclient.h"

extern PcbContext* iBusPcbClient;  // the bus thread's data-model client, owned by the public bus interface

/// The bus thread's data-model client; null while there is none. Bus thread.
PcbContext* helperPcbDataModelClient();

/// Loads the saved tree "OrvoService" into the data model; a failure is logged and leaves the data model's own values.
/// Once, at start-up, on the main thread, while the bus thread does not use the client yet. Blocks for the exchange.
void loadOrvoServiceData();

/// Saves the whole tree "OrvoService" to its file; a failure is logged, and the next save writes everything again.
/// Bus thread; blocks for the exchanges and the write.
void saveOrvoServiceData();

/// As saveOrvoServiceData, through another client. The client's thread.
void saveOrvoServiceDataThrough(PcbContext* client);
