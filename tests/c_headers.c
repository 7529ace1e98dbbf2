/* Every public header of the library, compiled by a C compiler. */
#include <zqhandler/zq_api.h>
#include <zqhandler/tc.h>

int c_headers_compiled(void) { return 1; }
