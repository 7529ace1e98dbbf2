// The handle, the library's side: the one way a handle operation fails.
#pragma once

#include <zqhandler/zqhandler_handle.h>

// Stores `code` as the handle's last error and gives the caller -1. Every handle operation fails
// through here, whatever protocol it speaks.
inline int fail(t_zqhandler* zqh, e_s9p_err code) {
    zqh->lasterr = code;
    return -1;
}
