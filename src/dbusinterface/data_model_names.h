// The names of the objects and parameters of the gateway's data model that the daemon knows.
#pragma once

#include "pcblib/pcbclient.h"

// The daemon's own tree, which is saved and loaded.
constexpr char KOrvoServiceObject[] = "OrvoService";

constexpr const char* KDynDnsObject = getPcbObjectPathForDynDns();
constexpr const char* KDynDnsEnable = getPcbParameterDynDnsEnable();
constexpr char KHostName[] = "HostName";
constexpr char KSyncNotFinished[] = "SyncNotFinished";

constexpr char KVoltaroObject[] = "OrvoService.Voltaro";
constexpr char KVoltaroEnable[] = "Enable";

constexpr char KGatewayClientObject[] = "OrvoService.GatewayClient";
constexpr char KConnectionStatus[] = "ConnectionStatus";
constexpr char KConnectionMode[] = "ConnectionMode";

constexpr char KServersObject[] = "OrvoService.HomeAutomation";
constexpr char KApplicationServer[] = "ApplicationServer";
constexpr char KCommunicationServer[] = "CommunicationServer";

// The platform's.
constexpr char KHomeAutomationObject[] = "NMC.HomeAutomation";
constexpr char KHomeAutomationId[] = "HA-ID";
constexpr char KHomeAutomationEnable[] = "Enable";

constexpr char KDnsServerObject[] = "DNS.Server";
constexpr char KDnsServerStatus[] = "Status";

// The network model: it has queries as children, whose "ResultString" holds the WAN addresses.
constexpr char KWanObject[] = "NeMo.Intf.data";
constexpr char KWanQueryPrefix[] = "NeMo.Intf.data.Query.";
constexpr char KWanAddresses[] = "ResultString";
