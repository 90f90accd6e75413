// A platform's own header, as unlike the stand-in's as the list in pcblib/platform.h allows.
#include <sys/select.h>

#define min(a, b) ((a) < (b) ? (a) : (b))
#define max(a, b) ((a) > (b) ? (a) : (b))

typedef long long platform_value;
typedef short platform_list, platform_link;
enum platform_code { PLATFORM_NO_ERROR, PLATFORM_LAST_ERROR = 0x7fffffff };
enum platform_kind { PLATFORM_OBJECT = 1, PLATFORM_CHANGED = 1, PLATFORM_CUSTOM = 100 };

extern enum platform_code pcb_error;
int platform_close(struct platform_client*), platform_cancel(struct platform_request*);
