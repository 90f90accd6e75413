#include "common/msg_bus/message_bus.h"
