"""The C side of the package, as data: the library's records as ctypes structures, every entry
point the package calls with its C types written as the public headers write them, and the
headers' constants the package relies on.

Nothing here loads the library. The declaration test compiles these tables against the headers
themselves (sizes, field offsets, function types, constant values), so that a header that changes
a record, a function or a constant without this file fails the test instead of corrupting memory.
"""

from ctypes import POINTER, Structure, Union, c_char, c_char_p, c_int, c_int32, c_uint, c_uint8
from ctypes import c_uint16, c_uint32, c_ushort, c_void_p

# ---- Constants of the headers (C name: value) ----

CONSTANTS = {
    # sony9p.h: frames and the error codes
    "S9P_MAX_FRAME": 18,
    "S9P_ERR_NONE": 0,
    "S9P_ERR_CHECKSUM": 1,
    "S9P_ERR_COMM": 2,
    "S9P_ERR_PROTOCOL": 3,
    "S9P_SEND_TIMEOUT": 4,
    "S9P_RCV_TIMEOUT": 5,
    "S9P_ERR_SYSTEM": 6,
    "S9P_ERR_NOT_CONNECTED": 7,
    "S9P_INVAL_ARG": 8,
    "S9P_PERMISSION_DENIED": 9,
    "S9P_NOT_IMPLEMENTED": 10,
    "S9P_NOTFOUND": 11,
    "S9P_LINK_NONE": 0,
    "S9P_LINK_DATAGRAM": 1,
    "S9P_LINK_SERIAL": 2,
    "S9P_LINK_STREAM": 3,
    # the output buffers of the handle's operations
    "ZQ_SENSE_BYTES": 16,
    "ZQ_SENSE_DATA_MAX": 15,
    "ZQ_TC_BYTES": 12,
    "ZQ_ODETICS_ID_BYTES": 9,
    "ZQ_CAPTURE_BYTES": 10,
    "ZQ_MEDIA_INFO_BYTES": 15,
    "ZQ_LOUTH_OUT_BYTES": 251,
    "S9P_MENU_SECTION_MAX": 14,
    "LOUTH_DATA_SIZE": 256,
    "LOUTH_REFUSAL": 0x05,
    "MGMT_MAX_DATA": 1490,
    "MGMT_MAX_REQUEST_DATA": 255,
}

# The daemon's event datagram and ports (vlmgpiod/gpio_event.h).
GPIO_CONSTANTS = {
    "LOOP_GPI_PORT": 42000,
    "LOOP_GPO_PORT": 42001,
    "INET_GPI_PORT": 42002,
    "GPIO_DATAGRAM_SIZE": 8,
}
GPIO_MCAST_ADDR = "224.1.1.42"

# ---- Records ----
# Each structure names its C type in _c_name_; fields are in the headers' order and widths.


class Reserved(Structure):
    _c_name_ = "t_zq_reserved"
    _fields_ = [("reserved", c_uint32)]


class S9pCommand(Structure):
    _c_name_ = "t_s9p_command"
    _fields_ = [
        ("flags", Reserved),
        ("status", Reserved),
        ("err_status", c_uint32),
        ("timeout", c_int32),
        ("data", c_uint8 * CONSTANTS["S9P_MAX_FRAME"]),
        ("len", c_uint8),
    ]


class LouthCommand(Structure):
    _c_name_ = "t_louth_command"
    _fields_ = [
        ("flags", Reserved),
        ("status", Reserved),
        ("err_status", c_uint32),
        ("timeout", c_int32),
        ("data", c_uint8 * CONSTANTS["LOUTH_DATA_SIZE"]),
        ("len", c_uint8),
    ]


class SockaddrIn(Structure):
    _c_name_ = "struct sockaddr_in"
    _fields_ = [
        ("sin_family", c_ushort),
        ("sin_port", c_uint16),
        ("sin_addr", c_uint32),
        ("sin_zero", c_uint8 * 8),
    ]


class S9pHandle(Structure):
    _c_name_ = "t_s9p_handle"
    _fields_ = [
        ("connected", c_int32),
        ("fd", c_int32),
        ("sockadd", SockaddrIn),
        ("socklen", c_int32),
        ("shdl", c_void_p),
    ]


class S9pData(Structure):
    _c_name_ = "t_s9p_data"
    _fields_ = [
        ("last_sent", S9pCommand),
        ("last_rcv", S9pCommand),
        ("sent_completion_time", c_uint32),
        ("rcv_completion_time", c_uint32),
    ]


class LouthData(Structure):
    _c_name_ = "t_louth_data"
    _fields_ = [("last_sent", LouthCommand), ("last_rcv", LouthCommand)]


class HandleData(Union):
    _c_name_ = None  # anonymous in C: checked through t_zqhandler's field `data`
    _fields_ = [("s9p", S9pData), ("louth", LouthData)]


class ZqHandler(Structure):
    _c_name_ = "t_zqhandler"
    _fields_ = [
        ("flags", Reserved),
        ("status", Reserved),
        ("lasterr", c_int32),
        ("comm_handle", S9pHandle),
        ("timeout", c_int32),
        ("proto_ver", c_int32),
        ("data", HandleData),
    ]


class TcStruct(Structure):
    _c_name_ = "t_tc_struct"
    _fields_ = [
        ("hours", c_int32),
        ("minutes", c_int32),
        ("seconds", c_int32),
        ("frames", c_int32),
    ]


RECORDS = (Reserved, S9pCommand, LouthCommand, SockaddrIn, S9pHandle, S9pData, LouthData,
           ZqHandler, TcStruct)

# ---- C types of the prototypes, as ctypes sees them ----
# Input byte strings go as c_char_p (Python bytes, zero bytes included); output buffers are
# ctypes arrays passed through the matching pointer type.

C_TYPES = {
    "void": None,
    "int": c_int,
    "unsigned": c_uint,
    "int32_t": c_int32,
    "uint32_t": c_uint32,
    "uint16_t": c_uint16,
    "const char*": c_char_p,
    "char*": POINTER(c_char),
    "const uint8_t*": c_char_p,
    "uint8_t*": POINTER(c_uint8),
    "int*": POINTER(c_int),
    "int32_t*": POINTER(c_int32),
    "uint32_t*": POINTER(c_uint32),
    "t_zqhandler*": POINTER(ZqHandler),
    "t_tc_struct*": POINTER(TcStruct),
}

# ---- Every entry point the package calls: "result name(argument, ...)" ----

PROTOTYPES = """
const char* s9p_strerror(int)
void _vlmlib_set_trace_level(unsigned)
unsigned _vlmlib_get_trace_level(void)

t_zqhandler* zqhandler_create(void)
void zqhandler_delete(t_zqhandler*)
int zqhandler_connect_serial(t_zqhandler*, const char*)
int zqhandler_connect_eth(t_zqhandler*, const char*, const char*)
int zqhandler_connect_tcp(t_zqhandler*, const char*, const char*)
void zqhandler_disconnect(t_zqhandler*)
int zqhandler_set_timeout(t_zqhandler*, int)
int zqhandler_get_timeout(t_zqhandler*)
int zqhandler_get_last_err(t_zqhandler*)
int zqhandler_cmd_sense_misc(t_zqhandler*, const uint8_t*, int, uint8_t*)

int zqhandler_cmd_basic(t_zqhandler*, int)
int zqhandler_cmd_sense_basic(t_zqhandler*, int, uint8_t*)
int zqhandler_cmd_sense_timecode(t_zqhandler*, int, char*)
int zqhandler_cmd_cueWithData(t_zqhandler*, const char*)
int zqhandler_cmd_sense_clip_range(t_zqhandler*, int*, int*)
int zqhandler_cmd_sense_clip_parameters(t_zqhandler*, int, uint32_t*, uint32_t*, int*, int*)
int zqhandler_cmd_save_clip_parameters(t_zqhandler*, int, uint32_t, uint32_t)
int zqhandler_cmd_preset_clip_prev(t_zqhandler*, int, int)
int zqhandler_cmd_preset_clip_next(t_zqhandler*, int, int)
int zqhandler_menu_recall_current(t_zqhandler*)
int zqhandler_menu_recall_flash(t_zqhandler*)
int zqhandler_menu_preset_default(t_zqhandler*)
int zqhandler_menu_save_flash(t_zqhandler*)
int zqhandler_menu_commit_section(t_zqhandler*, int)
int zqhandler_menu_read_section(t_zqhandler*, int, uint8_t*)
int zqhandler_menu_save_section(t_zqhandler*, int, const uint8_t*, int)
int zqhandler_cmd_preset_channel(t_zqhandler*, int)
int zqhandler_cmd_preset_current(t_zqhandler*, uint32_t)
int zqhandler_cmd_preset_field0(t_zqhandler*, uint32_t)
int zqhandler_cmd_preset_lastField(t_zqhandler*, uint32_t)
int zqhandler_cmd_loopmode(t_zqhandler*, int)
int zqhandler_cmd_timermode(t_zqhandler*, int)
int zqhandler_cmd_var_play(t_zqhandler*, int)
int zqhandler_cmd_shuttle(t_zqhandler*, int)
int zqhandler_cmd_jog(t_zqhandler*, int)
int zqhandler_cmd_step(t_zqhandler*, int)
int zqhandler_cmd_sense_status_range(t_zqhandler*, int, int, uint8_t*)

int zqhandler_cmd_automode(t_zqhandler*, int)
int zqhandler_cmd_odetics_inPreset(t_zqhandler*, const char*, const char*)
int zqhandler_cmd_odetics_outPreset(t_zqhandler*, const char*)
int zqhandler_cmd_odetics_inPreview(t_zqhandler*, const char*, const char*)
int zqhandler_cmd_odetics_outPreview(t_zqhandler*, const char*)
int zqhandler_cmd_odetics_recordCueUp(t_zqhandler*, const char*, const char*)
int zqhandler_cmd_odetics_eraseID(t_zqhandler*, const char*)
int zqhandler_cmd_odetics_eraseSegment(t_zqhandler*, const char*, const char*)
int zqhandler_cmd_odetics_set_deviceID(t_zqhandler*, const uint8_t*)
int zqhandler_cmd_odetics_sense_firstID(t_zqhandler*, char*)
int zqhandler_cmd_odetics_sense_nextID(t_zqhandler*, char*)
int zqhandler_cmd_odetics_sense_id_status(t_zqhandler*, const char*, uint8_t*)
int zqhandler_cmd_odetics_sense_id_length(t_zqhandler*, const char*, char*)

int zqhandler_cmd_tavon_sense_capture(t_zqhandler*, uint8_t*)
int zqhandler_cmd_tavon_sense_file_vinfo(t_zqhandler*, const char*, uint8_t*)
int zqhandler_cmd_tavon_sense_file_ainfo(t_zqhandler*, const char*, uint8_t*)
int zqhandler_cmd_tavon_sense_current_vinfo(t_zqhandler*, uint8_t*)
int zqhandler_cmd_tavon_sense_current_ainfo(t_zqhandler*, uint8_t*)
int zqhandler_cmd_tavon_sense_startup_vinfo(t_zqhandler*, uint8_t*)
int zqhandler_cmd_tavon_sense_startup_ainfo(t_zqhandler*, uint8_t*)
int zqhandler_cmd_tavon_ccmode(t_zqhandler*, int)

int zqhandler_cmd_louth_basic(t_zqhandler*, int, int)
int zqhandler_cmd_louth_sense_basic(t_zqhandler*, int, int, uint8_t*)
int zqhandler_cmd_louth_sense_firstID(t_zqhandler*, int, char*)
int zqhandler_cmd_louth_sense_nextID(t_zqhandler*, int, char*)
int zqhandler_cmd_louth_sense_id_length(t_zqhandler*, int, const char*, char*)
int zqhandler_cmd_louth_open_port(t_zqhandler*, int, int, int)
int zqhandler_cmd_louth_select_port(t_zqhandler*, int, int)
int zqhandler_cmd_louth_eraseID(t_zqhandler*, int, const char*)
int zqhandler_cmd_louth_cue_play(t_zqhandler*, int, const char*)
int zqhandler_cmd_louth_cue_play_data(t_zqhandler*, int, const char*, const char*, const char*)
int zqhandler_cmd_louth_record_init(t_zqhandler*, int, const char*)
int zqhandler_cmd_louth_record_init_data(t_zqhandler*, int, const char*, const char*, const char*)
int zqhandler_cmd_louth_var_play(t_zqhandler*, int, int32_t)
int zqhandler_cmd_louth_jog(t_zqhandler*, int, int32_t)
int zqhandler_cmd_louth_misc(t_zqhandler*, const uint8_t*, int)

int zqhandler_cnxn_version(t_zqhandler*, uint32_t*, uint32_t*)
int zqhandler_cnxn_get_diskinfo(t_zqhandler*, uint8_t*, int32_t)
int zqhandler_cnxn_get_file_entry(t_zqhandler*, uint32_t, uint8_t*, int32_t*, int32_t)
int zqhandler_cnxn_get_gop(t_zqhandler*, uint8_t*, int32_t*, int32_t)
int zqhandler_cnxn_put_gop(t_zqhandler*, uint32_t, const uint8_t*, uint32_t)

int zqhandler_mgmt_getlog(t_zqhandler*, uint8_t*)
int zqhandler_mgmt_get_diskinfo(t_zqhandler*, uint8_t*, int32_t)
int zqhandler_mgmt_put_diskinfo(t_zqhandler*, const uint8_t*, int32_t)
int zqhandler_mgmt_get_picture(t_zqhandler*, uint8_t*, int32_t, uint16_t)

void tcstr_reset(char*, int32_t, int32_t)
int tcstr_isvalid(const char*)
int tcstr_isnormal(const char*)
int tcstr_validate(char*, const char*, int32_t, int32_t, int32_t, int32_t)
int tcstr_incremente(char*, int32_t, int32_t, int32_t, int32_t)
int tcstr_decremente(char*, int32_t, int32_t, int32_t, int32_t)
int tcstr_compute_duration(char*, const char*, const char*, int32_t, int32_t, int32_t)
int tcstr_compute_eom(char*, const char*, const char*, int32_t, int32_t, int32_t, int32_t)
int tcstr_multiply(char*, const char*, uint32_t, int32_t, int32_t, int32_t, int32_t)
int tc_tcstrFixFormat(char*, const char*)
int tc_fix_tcstr(char*, const char*)
int tc_bcd2tcstr(char*, const uint8_t*)
int tc_tcstr2bcd(uint8_t*, const char*)
int32_t tc_struct2frames(t_tc_struct*, int32_t, int32_t)
int32_t tc_tcstr2frames(const char*, int32_t, int32_t)
int tc_frames2tcstr(uint32_t, int32_t, int32_t, char*)
int tc_frames2tcstr_clip24(uint32_t, int32_t, int32_t, char*)
int tc_tcstradd(char*, const char*, const char*, int32_t, int32_t)
int tc_tcstrsub(char*, const char*, const char*, int32_t, int32_t)
int tc_validstr(const char*, int32_t)
"""


def prototypes():
    """The entry points as (result type, name, argument types), C type names as written above."""
    entries = []
    for line in filter(None, PROTOTYPES.strip().splitlines()):
        head, arguments = line[:-1].split("(")
        result, name = head.rsplit(" ", 1)
        types = [] if arguments == "void" else [a.strip() for a in arguments.split(",")]
        entries.append((result.strip(), name, types))
    return entries
