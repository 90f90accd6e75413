// The gateway's data model from a client's side: connecting to the data-model bus, reading, writing and watching
// objects, calling their functions, loading and saving them.
//
// Threads: a client, and everything made for it, is used by one thread at a time, and not always by the one that made
// it; two clients may live on two threads. The connection_ functions that take no connection are for any thread.
//
// Time: connecting and every operation that waits for an answer take at most 5 s, then fail with PCB_ERROR_TIMEOUT; the
// connection stays usable, and an answer that comes after its time is dropped. Destroying waits for nobody.
//
// Ownership: what an operation hands out belongs to the library and stays valid until the same thread's next operation
// on that client, unless it says "new". Texts may hold any byte but zero.
//
// No argument may be null, unless it says so. The sanitizer builds end the process, with one line that names the call,
// where a caller gives null or breaks another rule below.
//
// Failure: null, false or a negative number, with the reason in pcb_error. Short memory is such a reason.
#ifndef PLATFORM_PCB_PCB_H
#define PLATFORM_PCB_PCB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pcb_t pcb_t;                                        // a client
typedef struct peer_info_t peer_info_t;                            // the bus at the other end of a client's connection
typedef struct connection_info_t connection_info_t;                // a client's connection
typedef struct request_t request_t;                                // a subscription or a function call
typedef struct reply_item_t reply_item_t;                          // one thing that arrived for a request
typedef struct notification_t notification_t;                      // a change, or an object's own notification
typedef struct notification_parameter_t notification_parameter_t;  // one of its texts
typedef struct argument_value_list_t argument_value_list_t;        // a function's out-arguments
typedef struct argument_value_t argument_value_t;                  // one of them
typedef struct datamodel_t datamodel_t;                            // the objects that a client holds
typedef struct object_t object_t;
typedef struct parameter_t parameter_t;

// ---- Errors ----

/// The reason of the calling thread's last failure; like errno, a success leaves it alone. May be assigned to.
#define pcb_error (*pcb_errorLocation())
uint32_t* pcb_errorLocation(void);

enum {
    PCB_ERROR_NOT_CONNECTED = 0x00010001,    // the client has no connection
    PCB_ERROR_TIMEOUT = 0x00010002,          // the bus did not answer in time
    PCB_ERROR_CONNECTION_LOST = 0x00010003,  // the bus closed the connection
    PCB_ERROR_NO_MEMORY = 0x00010004,
    PCB_ERROR_INVALID_ARGUMENT = 0x00010005,  // an empty value, a malformed URI, an unknown flag, a call out of order
    PCB_ERROR_CANNOT_CONNECT = 0x00010006,    // nobody listens at the address
    PCB_ERROR_UNREADABLE_FRAME = 0x00010007,  // an answer could not be read: malformed, or memory is short
    PCB_ERROR_FRAME_TOO_LARGE = 0x00010008,   // more than 16 MiB in one request or answer
    PCB_ERROR_BACKLOG = 0x00010009,           // 64 MiB wait for a bus that does not read
    PCB_ERROR_CANNOT_READ_FILE = 0x0001000A,
    PCB_ERROR_DAMAGED_FILE = 0x0001000B,  // the file, its line and what is wrong there stand on standard error
    PCB_ERROR_CANNOT_WRITE_FILE = 0x0001000C,
    PCB_ERROR_SYSTEM = 0x0001000D,          // a system call failed
    PCB_ERROR_UNKNOWN_OBJECT = 0x00020001,  // from here on: what the bus answers
    PCB_ERROR_UNKNOWN_PARAMETER = 0x00020002,
    PCB_ERROR_UNKNOWN_FUNCTION = 0x00020003,
    PCB_ERROR_WRONG_TYPE = 0x00020004,      // the value does not fit the parameter's type
    PCB_ERROR_READ_ONLY = 0x00020005,       // a client may not set this parameter
    PCB_ERROR_VALUE_TOO_LONG = 0x00020006,  // a value is at most 1 MiB (1048576 bytes)
    PCB_ERROR_MALFORMED_REQUEST = 0x00020007,
    PCB_ERROR_FUNCTION_FAILED = 0x00020008,
};

/// What a code means, in a few words; never null.
const char* error_string(uint32_t code);

// ---- Lists: the links live in what is listed ----

typedef struct llist_iterator_t {
    struct llist_iterator_t* next;
    struct llist_t* list;
} llist_iterator_t;

typedef struct llist_t {
    llist_iterator_t* first;
} llist_t;

bool llist_initialize(llist_t* list);
/// Puts a link at the end; false for a link that stands in a list already.
bool llist_append(llist_t* list, llist_iterator_t* link);
/// Takes all links out.
void llist_cleanup(llist_t* list);

// ---- Values ----

typedef enum { VARIANT_EMPTY, VARIANT_TEXT, VARIANT_INT32, VARIANT_BOOL, VARIANT_MAP } variant_type_t;

/// A map from keys to values, initialised in place; owns what was added.
typedef struct variant_map_t {
    struct variant_map_entry_t* first;
} variant_map_t;

/// A value, initialised in place; owns its text or map.
typedef struct variant_t {
    variant_type_t type;
    union {
        char* text;
        int32_t number;
        bool flag;
        variant_map_t map;
    } value;
} variant_t;

bool variant_initialize(variant_t* variant);
/// Makes it hold a copy of the text.
bool variant_setChar(variant_t* variant, const char* text);
/// Makes it hold the map's contents; the map is empty afterwards, and still valid.
bool variant_setMapMove(variant_t* variant, variant_map_t* map);
/// Releases what it holds; it is empty afterwards, and may be used again.
void variant_cleanup(variant_t* variant);
/// The value as a new text, which the caller frees; null when it is empty or a map, or memory is short.
char* variant_char(const variant_t* variant);

bool variant_map_initialize(variant_map_t* map);
/// Add an entry at the end; key and text are copied. False when out of memory.
bool variant_map_addChar(variant_map_t* map, const char* key, const char* text);
bool variant_map_addInt32(variant_map_t* map, const char* key, int32_t number);
bool variant_map_addBool(variant_map_t* map, const char* key, bool flag);

// ---- Connections and the event loop ----

/// Sets up the connection layer, once until connection_exitLibrary. From the first time on the process ignores SIGPIPE;
/// all other signals are the program's.
bool connection_initLibrary(void);
/// The counterpart of connection_initLibrary.
void connection_exitLibrary(void);
/// Ends the event loop (true), or takes that back (false). It does not take back a lost connection.
void connection_setTerminated(bool terminated);
/// Whether the event loop must end: connection_setTerminated said so, or connection_waitForEvents_r has told that a
/// client of this process has lost its bus, and that client was not destroyed yet.
bool connection_isTerminated(void);
/// Makes the present or the next connection_waitForEvents_r return at once. 1, or 0 on failure. The one function that
/// may be called in a signal handler, and from another thread while the loop waits.
int connection_setEventsAvailable(void);
/// A null handler ignores the signal for the process. Other handlers are not supported: false.
bool connection_setSignalEventHandler(connection_info_t* connection, int signalNumber, void (*handler)(int));
/// The link by which a connection is put into a list.
llist_iterator_t* connection_listLink(connection_info_t* connection);

/// Waits without limit until one of the listed connections has events (positive), connection_setEventsAvailable was
/// called or the loop must end (0: nothing to handle). Negative on failure, once also when any client of this process
/// has found its bus lost, in a wait or an operation of any thread. A signal is no failure. The caller has cleared the
/// sets.
int connection_waitForEvents_r(llist_t* list, fd_set* readSet, fd_set* writeSet);
/// Reads what has come and calls the handlers, in the order of arrival. A handler may create, send and destroy
/// requests, but not destroy its own, and do all that waits for an answer; what comes meanwhile is kept for the next
/// pass.
bool connection_handleEvents_r(llist_t* list, fd_set* readSet, fd_set* writeSet);
/// Waits for events at most this long (null: without limit): positive, 0 when the time is over, negative on failure.
/// Takes no notice of connection_setEventsAvailable.
int connection_waitForEvents(llist_t* list, struct timeval* timeout);
/// As connection_handleEvents_r.
bool connection_handleEvents(llist_t* list);

// ---- Clients ----

enum {
    PCB_CLIENT_OWN_OBJECTS = 1,  // whether the client brings objects of its own; only 0 is supported
    PCB_CLIENT_PLATFORM = 2,     // 1: the client is part of the platform and may set read-only parameters
};

/// A new client under a name that the bus shows in its messages; flags must be 0, configuration null.
pcb_t* pcb_create(const char* name, uint32_t flags, const char* configuration);
/// Closes and frees. Its requests end, but stay their owners' to destroy.
void pcb_destroy(pcb_t* pcb);
/// Only before connecting.
bool pcb_client_set_attribute(pcb_t* pcb, uint32_t attribute, uint32_t value);
/// Connects to "pcb://ipc:{PATH}", once in a client's life. The peer belongs to the client.
peer_info_t* pcb_client_connect(pcb_t* pcb, const char* uri);
/// The client's connection; null before it is connected.
connection_info_t* pcb_connection(pcb_t* pcb);
/// The reason of this client's last failure in one of the three operations below.
uint32_t pcb_client_error(const pcb_t* pcb);

const variant_t* pcb_client_get(peer_info_t* peer, const char* objectPath, const char* parameterName);
bool pcb_client_set(peer_info_t* peer, const char* objectPath, const char* parameterName, const variant_t* value);
/// Fetches an object with all objects below it and holds it from then on; flags must be 0. An empty path is the root.
object_t* pcb_client_get_object(peer_info_t* peer, const char* objectPath, uint32_t flags);

// ---- Objects and parameters ----

bool object_hasParameters(const object_t* object);
parameter_t* object_firstParameter(object_t* object);
parameter_t* object_nextParameter(parameter_t* parameter);
parameter_t* object_getParameter(object_t* object, const char* name);
/// The path from the root, such as "OrvoService.DynDNS", as a new text, which the caller frees; flags must be 0.
char* object_pathChar(const object_t* object, uint32_t flags);
/// What holds the object.
datamodel_t* object_datamodel(object_t* object);
const char* parameter_name(const parameter_t* parameter);
const variant_t* parameter_getValue(const parameter_t* parameter);

enum { DATAMODEL_TEXT = 0x10000 };

/// Writes an object, as it was last fetched, with what lies at most `depth` levels below it (-1: all) into a file that
/// holds the old content or the new one at any moment. The file "PATH.new" is used on the way: one save of a file at a
/// time. flags must be DATAMODEL_TEXT.
bool datamodel_save(object_t* object, int32_t depth, const char* filePath, uint32_t flags);
/// Reads a file and sets what it holds on the bus. Parameters that are read-only, and objects and parameters that the
/// client does not hold, are passed over. A damaged file, and a value that does not fit its parameter, changes nothing.
bool datamodel_load(datamodel_t* datamodel, const char* filePath, uint32_t flags);

// ---- Requests ----

/// What a get-object request asks for.
enum {
    REQUEST_OBJECT = 0x0001,         // the object with its parameters, once
    REQUEST_SUB_OBJECTS = 0x0004,    // and the objects below it
    REQUEST_VALUE_CHANGES = 0x0040,  // and then the changes of their values
    REQUEST_CUSTOM = 0x0200,         // the custom notifications of these objects
    REQUEST_CHANGES_ONLY = 0x0400,   // changes of values without the object first
    REQUEST_STAYS = 0x1000,          // the request stays open after the object was delivered
    // The combinations in use:
    REQUEST_WATCH = REQUEST_STAYS | REQUEST_VALUE_CHANGES | REQUEST_SUB_OBJECTS | REQUEST_OBJECT,  // 0x1045
    REQUEST_NOTIFICATIONS = REQUEST_CHANGES_ONLY | REQUEST_CUSTOM,                                 // 0x600
};

/// What an execute-function request is for. The bus answers both alike.
enum {
    REQUEST_FUNCTION_SYNCHRONOUS = 0,   // the caller waits for the answer itself
    REQUEST_FUNCTION_ASYNCHRONOUS = 1,  // the answer is left to the event loop
};

/// Called on the event loop for every item that arrives for a request; the result is not used. Item and texts are valid
/// during the call.
typedef int (*request_reply_item_handler_t)(request_t* request, reply_item_t* item);

/// A new request for an object and what lies at most `depth` levels below it (-1: all); request_destroy releases it. An
/// object that does not exist brings an error item later.
request_t* request_create_getObject(const char* objectPath, int32_t depth, uint32_t flags);
/// A new call of a function; request_destroy releases it. Objects and functions that do not exist bring an error item
/// later.
request_t* request_create_executeFunction(const char* objectPath, const char* functionName, uint32_t flags);
/// Adds an argument; takes the value over and leaves the variant empty.
bool request_addParameter(request_t* request, const char* name, variant_t* value);
bool request_setReplyItemHandler(request_t* request, request_reply_item_handler_t handler);
/// Sends a request, once in its life. Does not wait: what the socket does not take now goes out later.
bool pcb_sendRequest(pcb_t* pcb, peer_info_t* peer, request_t* request);
/// Ends a request and frees it: nothing arrives for it any more. Not in its own handler.
void request_destroy(request_t* request);
const char* request_path(const request_t* request);
/// Null for a get-object request.
const char* request_functionName(const request_t* request);

// ---- What arrives for a request ----

enum { REPLY_ITEM_OBJECT = 1, REPLY_ITEM_NOTIFICATION = 2, REPLY_ITEM_ERROR = 3, REPLY_ITEM_FUNCTION_RETURN = 4 };

int reply_item_type(const reply_item_t* item);
object_t* reply_item_object(reply_item_t* item);
notification_t* reply_item_notification(reply_item_t* item);
int reply_item_error(const reply_item_t* item);
const char* reply_item_errorDescription(const reply_item_t* item);
const char* reply_item_errorInfo(const reply_item_t* item);
/// Null when the function returned nothing.
const variant_t* reply_item_returnValue(const reply_item_t* item);
/// Null when there are no out-arguments.
argument_value_list_t* reply_item_returnArguments(reply_item_t* item);

argument_value_t* argument_valueFirstArgument(argument_value_list_t* list);
argument_value_t* argument_valueNextArgument(argument_value_t* argument);
const char* argument_valueName(const argument_value_t* argument);
const variant_t* argument_value(const argument_value_t* argument);

enum {
    NOTIFICATION_VALUE_CHANGED = 1,  // three parameters: the parameter's name, the old value, the new value
    NOTIFICATION_CUSTOM = 100,       // one parameter: the value
};

int notification_type(const notification_t* notification);
/// The object that changed: the one asked for or one below it.
const char* notification_objectPath(const notification_t* notification);
notification_parameter_t* notification_firstParameter(notification_t* notification);
notification_parameter_t* notification_nextParameter(notification_parameter_t* parameter);
const char* notification_parameter_value(const notification_parameter_t* parameter);

// ---- What only the stand-in has, for its own programs ----

object_t* object_firstChild(object_t* object);
object_t* object_nextSibling(object_t* object);

#ifdef __cplusplus
}
#endif

#endif
