/* Every public header of the library, compiled by a C compiler. */
#include <zqhandler/zq_api.h>
#include <zqhandler/tc.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/cnxn.h>
#include <zqhandler/zqhandler.h>
#include <zqhandler/trace.h>
#include <zqhandler/s9p_commands.h>
#include <zqhandler/zqhandler_sony.h>
#include <zqhandler/odetics.h>
#include <zqhandler/tavon.h>
#include <zqhandler/zqhandler_odetics.h>
#include <zqhandler/zqhandler_tavon.h>
#include <zqhandler/basic.h>
#include <zqhandler/louth.h>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/mgmt.h>
#include <zqhandler/zqhandler_mgmt.h>
#include <zqhandler/zqhandler_cnxn.h>

int c_headers_compiled(void);
int c_headers_compiled(void) { return 1; }
