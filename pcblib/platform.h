// The interface to the platform's client library: <pcb.h>, and the library's numbers. On a desk that header is the
// stand-in's. On a gateway it is the porter's own, in the folder that ORSM_PCB_INCLUDE names; it includes the
// platform's headers, with C linkage, and defines what they do not have under the names below. It must provide:
//
//   types, used by pointer     pcb_t, peer_info_t, connection_info_t, request_t, reply_item_t, notification_t,
//                              notification_parameter_t, argument_value_list_t, argument_value_t, datamodel_t,
//                              object_t, parameter_t
//   types, also used by value  variant_t, variant_map_t, llist_t
//   pcb_error                  the reason of the library's last failure: a variable, or a macro for one; of the process
//                              or of the thread; a number or an enumeration. error_string takes that type, or a number
//   connection_listLink(c)     the address of the list link inside a connection: what llist_append takes
//   functions                  those of platform/pcb/pcb.h but for its last section
//
// A function may be a macro, except the four that the suite puts its own functions in front of: connection_initLibrary,
// pcb_client_connect, pcb_sendRequest and notification_nextParameter are symbols. The handler of reply items is an
// int (*)(request_t*, reply_item_t*). Success may be a bool or a whole number. Flags and attributes are handed over as
// whole numbers; kinds and codes may be enumerations. Objects, data models, parameters, notifications, arguments,
// values and texts may be given out as constant or not; each function takes them as those that give them out say, and
// texts as constant. Nothing is asked of the library beyond what that header says; null is handed to its functions only
// where that header takes it, and nothing but connection_setEventsAvailable is called from a signal handler, or from
// another thread while the loop waits.
#pragma once

#include <pcb.h>

// The headers of the C++ library do not stand these macros.
#undef min
#undef max

#include <cstdint>

inline constexpr uint32_t KClientAttribute = 1;             // set to 0 before connecting
inline constexpr uint32_t KErrorNotConnected = 0x00010001;  // of pcb_error
inline constexpr uint32_t KDatamodelText = 0x10000;         // of datamodel_load and datamodel_save

// What request_create_getObject asks for.
inline constexpr uint32_t KRequestWatch = 0x1045;         // the object once, then each change of a value
inline constexpr uint32_t KRequestNotifications = 0x600;  // each change of a value, and custom notifications
inline constexpr uint32_t KRequestCustom = 0x200;         // custom notifications alone

// What request_create_executeFunction is for.
inline constexpr uint32_t KCallSynchronous = 0;
inline constexpr uint32_t KCallAsynchronous = 1;

// What reply_item_type and notification_type give.
inline constexpr int KReplyObject = 1;
inline constexpr int KReplyNotification = 2;
inline constexpr int KReplyError = 3;
inline constexpr int KReplyFunctionReturn = 4;
inline constexpr int KNotificationValueChanged =
    1;                                           // three parameters: the parameter's name, the old and the new value
inline constexpr int KNotificationCustom = 100;  // one parameter: the value
