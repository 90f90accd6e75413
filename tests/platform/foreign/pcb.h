// A porter's adapter for the platform of sdk/platform_bus.h, made from the list in pcblib/platform.h alone: whole
// numbers for success, enumerations for kinds and codes, constant handles, macros, one pcb_error of the process, and no
// type that one could look into (most are declared where they are used first). Nothing runs with it: what leans on the
// stand-in's own header does not compile here.
extern "C" {
#include <platform_bus.h>

typedef struct platform_client pcb_t;
typedef struct platform_object object_t;
typedef struct platform_request request_t;
typedef platform_value variant_t;
typedef platform_list llist_t, variant_map_t;
using Text = const char*;

#define connection_listLink(connection) platform_link_of(connection)
#define object_firstParameter(object) platform_value_of(object, 0)
#define pcb_destroy(client) platform_close(client)
#define request_destroy(request) platform_cancel(request)
#define request_path(request) platform_name(request, 0)
#define request_functionName(request) platform_name(request, 1)

Text error_string(platform_code), platform_name(const request_t*, int);
platform_kind notification_type(const struct notification_t*), reply_item_type(const struct reply_item_t*);
platform_code reply_item_error(const reply_item_t*), pcb_client_error(pcb_t*);

platform_link* platform_link_of(struct connection_info_t*);
int llist_initialize(llist_t*), llist_append(llist_t*, platform_link*), llist_cleanup(llist_t*);

int variant_initialize(variant_t*), variant_setChar(variant_t*, Text), variant_cleanup(variant_t*);
int variant_setMapMove(variant_t*, variant_map_t*), variant_map_initialize(variant_map_t*),
    variant_map_addBool(variant_map_t*, Text, int);
int variant_map_addChar(variant_map_t*, Text, Text), variant_map_addInt32(variant_map_t*, Text, int);
char *variant_char(const variant_t*), *object_pathChar(const object_t*, int);

int connection_initLibrary(), connection_isTerminated(), connection_setEventsAvailable();
int connection_exitLibrary(), connection_setTerminated(int);
int connection_setSignalEventHandler(connection_info_t*, int, void (*)(int));
int connection_waitForEvents(llist_t*, timeval*), connection_waitForEvents_r(llist_t*, fd_set*, fd_set*);
int connection_handleEvents(llist_t*), connection_handleEvents_r(llist_t*, fd_set*, fd_set*);

pcb_t* pcb_create(Text, int, Text);
struct peer_info_t* pcb_client_connect(pcb_t*, Text);
connection_info_t* pcb_connection(pcb_t*);
int pcb_client_set_attribute(pcb_t*, int, int), pcb_sendRequest(pcb_t*, peer_info_t*, request_t*);
int pcb_client_set(peer_info_t*, Text, Text, variant_t*);
variant_t* pcb_client_get(peer_info_t*, Text, Text);

const object_t *pcb_client_get_object(peer_info_t*, Text, int), *reply_item_object(const reply_item_t*);
const struct parameter_t *platform_value_of(const object_t*, int), *object_nextParameter(const parameter_t*);
const parameter_t* object_getParameter(const object_t*, Text);
const variant_t *parameter_getValue(const parameter_t*), *argument_value(const struct argument_value_t*);
const struct datamodel_t* object_datamodel(const object_t*);
int object_hasParameters(const object_t*);
int datamodel_save(const object_t*, int, Text, int), datamodel_load(const datamodel_t*, Text, int);

request_t *request_create_getObject(Text, int, int), *request_create_executeFunction(Text, Text, int);
int request_addParameter(request_t*, Text, variant_t*);
int request_setReplyItemHandler(request_t*, int (*)(request_t*, reply_item_t*));

const notification_t* reply_item_notification(const reply_item_t*);
const variant_t* reply_item_returnValue(const reply_item_t*);
const struct argument_value_list_t* reply_item_returnArguments(const reply_item_t*);
const argument_value_t* argument_valueFirstArgument(const argument_value_list_t*);
const argument_value_t* argument_valueNextArgument(const argument_value_t*);
const struct notification_parameter_t* notification_firstParameter(const notification_t*);
const notification_parameter_t* notification_nextParameter(const notification_parameter_t*);
Text reply_item_errorDescription(const reply_item_t*), reply_item_errorInfo(const reply_item_t*);
Text argument_valueName(const argument_value_t*), parameter_name(const parameter_t*);
Text notification_objectPath(const notification_t*), notification_parameter_value(const notification_parameter_t*);
}
