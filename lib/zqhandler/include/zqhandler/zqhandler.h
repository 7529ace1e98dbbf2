/* The zqhandler library in one header: every public function, record and constant, for C and C++.
 * Each header below can also be included alone.
 *
 *   zqhandler_handle.h   the handle: create, connect (UDP, TCP, serial), time-out, last error, and
 *                        the Sony exchange of any frame
 *   zqhandler_sony.h     the Sony operations: basic commands and senses, timecode, clips, presets,
 *                        menus, modes, motion
 *   zqhandler_odetics.h  the Odetics operations: clips by ID, previews, the ID list
 *   zqhandler_tavon.h    the server's media operations: file and output information, captions
 *   zqhandler_louth.h    the Louth operations
 *   zqhandler_cnxn.h     transfers over TCP: version, disk information, file entries, GOPs
 *   zqhandler_mgmt.h     the management protocol over UDP: log, disk information, pictures
 *   sony9p.h             Sony frames, the error codes and s9p_strerror
 *   s9p_commands.h, odetics.h, tavon.h, louth.h, cnxn.h, mgmt.h
 *                        the builders of every command, for a caller's own exchanges
 *   basic.h              the basic command and sense numbers
 *   tc.h                 timecode strings, frame counts and BCD
 *   trace.h              the library's trace limit
 *
 * Every failure of an exchange leaves an e_s9p_err code in the handle: zqhandler_get_last_err
 * returns it, s9p_strerror turns it into text. */
#ifndef ZQHANDLER_ZQHANDLER_H
#define ZQHANDLER_ZQHANDLER_H

#include <zqhandler/basic.h>
#include <zqhandler/cnxn.h>
#include <zqhandler/louth.h>
#include <zqhandler/mgmt.h>
#include <zqhandler/odetics.h>
#include <zqhandler/s9p_commands.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/tavon.h>
#include <zqhandler/tc.h>
#include <zqhandler/trace.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_cnxn.h>
#include <zqhandler/zqhandler_handle.h>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_mgmt.h>
#include <zqhandler/zqhandler_odetics.h>
#include <zqhandler/zqhandler_sony.h>
#include <zqhandler/zqhandler_tavon.h>

#endif
