/* The library's trace on standard error and its process-wide limit. The library writes a trace
 * line of level L only while L is below the limit (an unsigned comparison); the connection
 * protocol's transport failures are traced at level 200, and a process starts with the limit 500.
 * A program quiets the library with _vlmlib_set_trace_level(0). Not locked: set the limit before
 * threads that use the library start. */
#ifndef ZQHANDLER_TRACE_H
#define ZQHANDLER_TRACE_H

#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

ZQ_API void _vlmlib_set_trace_level(unsigned limit);
ZQ_API unsigned _vlmlib_get_trace_level(void);

ZQ_END_DECLS

#endif
