// The daemon's client of the gateway's data model: contexts and parameters, subscriptions and the event loop, function
// calls. It uses the platform's client library. The singleton client, the subscriptions, the loop, the queues and the
// asynchronous functions belong to the main thread; a context made with easyCreatePcbDataModelClient belongs to the
// thread that uses it. Failures are logged here, except out of memory where the result says so; operations report 1
// for success and 0 for failure.
#pragma once

#include "common/text/text.h"
#include "pcblib/platform.h"

/// One client context.
struct PcbContext {
    pcb_t* pcb;
    peer_info_t* peer;
};

extern PcbContext* iPcbContext;  // the singleton client, or null; main thread

// ----- Contexts and parameters (every exchange blocks for at most 5 s and gives the gate up meanwhile)

/// Connects the singleton client: 1, or 0 when it exists already or cannot be made. Main thread.
[[nodiscard]] int createPcbDataModelClient();

/// Releases the singleton client, if it exists, with the queued releases and subscriptions; a queued call stays its
/// owner's. Main thread, outside the loop, after every other request was released.
void destroyPcbDataModelClient();

/// Connects a further context; null when that fails. Released with easyDestroyPcbDataModelClient. Start-up only: the
/// count of contexts is not guarded against a second thread.
[[nodiscard]] PcbContext* easyCreatePcbDataModelClient();

/// Disconnects and releases a context; null is ignored. Start-up and shut-down only.
void easyDestroyPcbDataModelClient(PcbContext* context);

/// The value of a parameter as text; null when it cannot be read. The context's thread.
[[nodiscard]] OwnedText easyGetPcbParamAsString(PcbContext* context, const char* object, const char* parameter);

/// Sets a parameter from a text, from a flag (written as "true" or "false"), or to the empty text. The context's
/// thread.
[[nodiscard]] int easySetPcbParam(PcbContext* context, const char* object, const char* parameter, const char* value);
[[nodiscard]] int easySetPcbParamBoolValue(PcbContext* context, const char* object, const char* parameter, int flag);
[[nodiscard]] int easyClearPcbParam(PcbContext* context, const char* object, const char* parameter);

/// Fetches an object from the bus; it belongs to the platform library. Null when there is none. The context's thread.
object_t* easyGetPcbObject(PcbContext* context, const char* path);

/// Walks the parameters of `object`: the one after `*cursor` (the first for a null cursor), which becomes the cursor;
/// null at the end. `*name` belongs to the library, `*value` is a new text; both are null when there is no parameter,
/// the value also when out of memory. The context's thread.
parameter_t* easyGetPcbParamNext(object_t* object, parameter_t** cursor, const char** name, OwnedText* value);

/// The value of one parameter of a fetched or delivered object; null when it has none of that name. The object's
/// thread.
[[nodiscard]] OwnedText easyGetPcbParamByName(object_t* object, const char* name);

/// Loads the tree of `object` from a file, or saves what the client holds of it to a file, in /etc/config or in a given
/// folder (without a slash at its end). A save replaces the file whole or not at all. The context's thread; blocks for
/// the exchange and the file.
[[nodiscard]] int easyPcbDatamodelLoad(PcbContext* context, const char* file, const char* object);
[[nodiscard]] int easyPcbDatamodelSave(PcbContext* context, const char* file, const char* object);
[[nodiscard]] int easyPcbDatamodelLoad_v2(PcbContext* context, const char* folder, const char* file,
                                          const char* object);
[[nodiscard]] int easyPcbDatamodelSave_v2(PcbContext* context, const char* folder, const char* file,
                                          const char* object);

/// The object and the parameter of the DynDNS switch. Any thread.
constexpr const char* getPcbObjectPathForDynDns() { return "OrvoService.DynDNS"; }
constexpr const char* getPcbParameterDynDnsEnable() { return "Enable"; }

// ----- Subscriptions and the event loop (main thread, with the singleton there; texts and handles given to callbacks
// live for the call)

/// Receives an object as it is delivered.
using PcbObjectChangedCallback = void (*)(const char* path, object_t* object);

/// Receives the change of one parameter; the texts are never null. A notification that lacks one is logged instead.
using PcbParamChangedCallback = void (*)(const char* path, const char* parameter, const char* oldValue,
                                         const char* newValue);

/// Receives the first parameter of a custom notification; the texts are never null.
using PcbCustomNotificationCallback = void (*)(const char* path, const char* value);

/// Set the callbacks of all subscriptions; null for none.
void setPcbChangesCallbacks(PcbObjectChangedCallback objectChanged, PcbParamChangedCallback paramChanged);
void setPcbCustomNotificationCallback(PcbCustomNotificationCallback callback);

/// Subscribes to an object: it is delivered once, then every change of its parameters is notified, until the request is
/// released. The request, to be released with freePcbRequestObject, or null. An unknown object shows later, as an error
/// item. The second function delivers only changes, and the third only custom notifications.
[[nodiscard]] request_t* listenToChangesInPcbObject(const char* path);
[[nodiscard]] request_t* listenToNotificationsFromPcbObject(const char* path);
[[nodiscard]] request_t* listenToCustomNotificationsFromPcbObject(const char* path);

/// Queues a subscription like listenToChangesInPcbObject for the end of the loop's current pass; takes `path` over,
/// null is ignored. Out of memory: logged, and not subscribed. The request lives until the client is destroyed.
void listenToChangesInPcbObjectAsync(OwnedText path);

/// The handlers of reply items, always 1, and what they call for a notification (no result). Item and notification are
/// valid during the call only. Main thread, in the loop.
int clientHandleReplyItem(request_t* request, reply_item_t* item);
int handleAsyncCustomNotifications(request_t* request, reply_item_t* item);
void walkThroughChangedParameters(notification_t* notification);
void walkThroughNotificationParameters(notification_t* notification);

/// Releases a request and takes it out of every queue; null is ignored. Not from a callback for the request itself.
void freePcbRequestObject(request_t* request);

/// Queues a request (null is ignored) to be released at the end of the loop's current pass: the way out of a callback,
/// the request's own included. Needs no memory. A second release of the same request is ignored.
void freePcbRequestObjectAsync(request_t* request);

/// Runs until the bus connection is lost or the loop is stopped or ended; 1 then. Without a connection it returns 0 at
/// once.
[[nodiscard]] int startPcbDataModelEventLoop();

/// Ends the loop after its current pass; from outside the loop, connection_setEventsAvailable ends the wait too.
void stopPcbDataModelEventLoop();

/// Ends the loop, or keeps it from beginning, for good: nothing takes that back. Any thread, also in a signal handler.
void endPcbDataModelEventLoop();

/// Sets what callInPcbDataModelEventLoop calls; null for nothing.
void setPcbLoopCallback(void (*callback)());

/// Lets the loop call the loop callback soon, between two events; several requests may become one call. Needs a library
/// whose connection_setEventsAvailable may be called from any thread. Any thread.
void callInPcbDataModelEventLoop();

/// Whether the loop has to end. Main thread.
[[nodiscard]] bool isPcbDataModelEventLoopEnding();

// ----- Functions (main thread, except easyExecutePcbFunction)

/// Receives the result of an asynchronous function call: a JSON object with "returns" (text or null) and then one text
/// member per out-argument; null when memory was short. The request is released by its owner, from here with
/// freePcbRequestObjectAsync.
using PcbFunctionCallback = void (*)(const char* path, const char* function, const char* resultJson);

/// Told of a queued request that could not be sent, right before it is released: its owner forgets it.
using PcbRequestLostCallback = void (*)(request_t* request);

/// Set the callbacks of all function calls; null for none.
void setPcbFunctionCallback(PcbFunctionCallback callback);
void setPcbRequestLostCallback(PcbRequestLostCallback callback);

/// A function call to be filled and sent, or null. Released by its owner like a subscription.
[[nodiscard]] request_t* prepareToExecutePcbFunction(const char* path, const char* function);

/// Adds a named parameter to a prepared call: nonzero, or 0 when out of memory, one of the three is null or the call
/// was sent already.
[[nodiscard]] int addStringParameter(request_t* request, const char* name, const char* value);

/// A map to be filled and added to a call, or null when out of memory; released with freeMapParameter whether it was
/// added or not.
[[nodiscard]] variant_map_t* createMapParameter();

/// Add an entry to a map; the texts (not null) are copied. Nonzero, or 0 when out of memory.
[[nodiscard]] int addStringParameterToMap(variant_map_t* map, const char* key, const char* value);
[[nodiscard]] int addIntParameterToMap(variant_map_t* map, const char* key, int value);
[[nodiscard]] int addBoolParameterToMap(variant_map_t* map, const char* key, int flag);

/// Moves the map's contents into a parameter of the call; the map is empty then, and still the caller's. Nonzero, or 0
/// when out of memory, one of the three is null or the call was sent already.
[[nodiscard]] int addMapParameter(request_t* request, const char* name, variant_map_t* map);

/// Releases a map and what it still holds; null is ignored.
void freeMapParameter(variant_map_t* map);

/// Sends a prepared call; its result reaches the function callback. The request, or null after releasing it when it
/// could not be sent. Null gives null. Outside the loop.
[[nodiscard]] request_t* executePreparedPcbFunction(request_t* request);

/// Queues a prepared call to be sent at the end of the loop's current pass. The request, or null after releasing it
/// when it could not be queued; null gives null. The way to call from a callback.
[[nodiscard]] request_t* executePreparedPcbFunctionAsync(request_t* request);

/// Calls a function without parameters, like prepareToExecutePcbFunction and executePreparedPcbFunction.
[[nodiscard]] request_t* executePcbFunction(const char* path, const char* function);

/// Calls a function without parameters and waits up to 5 s, once: the result JSON, which belongs to this module and is
/// valid until the next call of this operation, or null. One thread at a time; not with the singleton while its loop
/// runs.
const char* easyExecutePcbFunction(PcbContext* context, const char* path, const char* function);

/// The handler of an asynchronous call's reply items; always 1.
int handleAsyncFunctionReturn(request_t* request, reply_item_t* item);

/// The result JSON of a function return; null for an item of another kind, or when out of memory.
[[nodiscard]] OwnedText functionExecutionResultToJson(reply_item_t* item);
