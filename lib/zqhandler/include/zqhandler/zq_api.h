/* Export and linkage markers shared by every public header of the zqhandler library. */
#ifndef ZQHANDLER_ZQ_API_H
#define ZQHANDLER_ZQ_API_H

/* Marks an entry point of libzqhandler.so; everything else is built hidden. */
#define ZQ_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define ZQ_BEGIN_DECLS extern "C" {
#define ZQ_END_DECLS }
#else
#define ZQ_BEGIN_DECLS
#define ZQ_END_DECLS
#endif

#endif
