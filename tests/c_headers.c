/* The library's whole interface, compiled by a C compiler through the one header that gives it,
 * and the daemon's event header. */
#include <zqhandler/zqhandler.h>
#include <vlmgpiod/gpio_event.h>

int c_headers_compiled(void);
int c_headers_compiled(void) {
    return ZQ_TC_BYTES == 12 && ZQ_DATAGRAM_HEADER_SIZE == sizeof(ComHdr_mgmt);
}
