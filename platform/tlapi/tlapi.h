/* The SDI board vendor's SPI interface (libtlapi.so), as the daemon uses it. */
#ifndef TLAPI_H
#define TLAPI_H

#ifdef __cplusplus
extern "C" {
#endif

/* Prepares the library; called once, before any other call. */
int SPIInit(void);

/* Configures the controller as SPI master for the board. The board needs (0, 0, 0, 8, 500); what
 * each value means is the vendor's business. */
int SPIInitMaster(int a, int b, int c, int d, int e);

/* One transfer of `length` bytes on SPI port `port`. SPIWrite sends `data` and discards what the
 * board clocks back; SPIRead sends `data` and stores the bytes clocked back in its place. `data`
 * belongs to the caller and is used only during the call. The daemon ignores the results. */
int SPIWrite(int port, unsigned char* data, int length);
int SPIRead(int port, unsigned char* data, int length);

#ifdef __cplusplus
}
#endif

#endif
