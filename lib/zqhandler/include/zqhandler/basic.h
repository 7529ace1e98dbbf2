/* The fixed transport commands and senses that a controller names by number, whatever protocol
 * carries them; each protocol's basic operations map them to frames of their own. */
#ifndef ZQHANDLER_BASIC_H
#define ZQHANDLER_BASIC_H

/* The transport commands; the frames in the comments are Sony's (zqhandler_cmd_basic). */
typedef enum e_basic_command {
    BAS_CMD_STOP = 0,                      /* 20 00 */
    BAS_CMD_PLAY = 1,                      /* 20 01 */
    BAS_CMD_RECORD = 2,                    /* 20 02 */
    BAS_CMD_STILL = 3,                     /* 20 05 */
    BAS_CMD_CONTINUE = 4,                  /* 20 04 */
    BAS_CMD_EJECT = 5,                     /* 20 0F */
    BAS_CMD_FF = 6,                        /* 20 10 */
    BAS_CMD_RW = 7,                        /* 20 20 */
    BAS_CMD_ERASE_ALL = 8,                 /* A0 10 */
    BAS_CMD_ODETICS_INRESET = 9,           /* 40 20 */
    BAS_CMD_ODETICS_OUTRESET = 10,         /* 40 21 */
    BAS_CMD_ODETICS_PREVIEW_INRESET = 11,  /* A0 06 */
    BAS_CMD_ODETICS_PREVIEW_OUTRESET = 12, /* A0 07 */
    BAS_CMD_ODETICS_AUTOSKIP = 13,         /* A0 01 */
    BAS_CMD_REMOUNT = 14,                  /* 30 07 */
    BAS_CMD_INITIALIZE = 15,               /* 30 04 */
    BAS_CMD_RESET = 16,                    /* 34 09 41 53 41 50 */
    BAS_CMD_STEP_FWD = 17,                 /* 21 14 01 */
    BAS_CMD_STEP_RW = 18,                  /* 21 24 01 */
    BAS_CMD_EE_ON = 19,                    /* 20 61 */
    BAS_CMD_EE_OFF = 20,                   /* 20 60 */
    BAS_CMD_LAST = 21                      /* the count: not a command */
} e_basic_command;

/* The senses, with the Sony frame and the answer zqhandler_cmd_sense_basic accepts: "7x" is any CMD1 of
 * group 7, "8x" of group 8. */
typedef enum e_basic_sense {
    BAS_SENSE_STATUS = 0,             /* 61 20 0A; 7x 20 */
    BAS_SENSE_ERRORS = 1,             /* 61 C1 00; 7x */
    BAS_SENSE_PRODUCT = 2,            /* 60 B1; 7x */
    BAS_SENSE_VERSION = 3,            /* 60 95; 7x */
    BAS_SENSE_TC = 4,                 /* 61 0C 04; 7x */
    BAS_SENSE_SERIAL = 5,             /* 60 B2; 7x */
    BAS_SENSE_ODETICS_CAPABILITY = 6, /* 60 AA; 7x */
    BAS_SENSE_ODETICS_STORAGE = 7,    /* A0 1C; 8x */
    BAS_SENSE_ODETICS_DEVICE_ID = 8,  /* A0 21; 8x */
    BAS_SENSE_LOADED_ID = 9,          /* 61 C1 01; 7x C1 */
    BAS_SENSE_DEVICE_TYPE = 10,       /* 00 11; exactly 12 11 */
    BAS_SENSE_PREROLL = 11,           /* 60 31; 7x */
    BAS_SENSE_POSTROLL = 12,          /* 60 3C; 7x */
    BAS_SENSE_SPEED = 13,             /* 60 2E; 7x */
    BAS_SENSE_FRAME_MODE = 14,        /* 60 38; 7x */
    BAS_SENSE_REC_INHIBIT = 15,       /* 60 3E; 7x */
    BAS_SENSE_TIMER_MODE = 16,        /* 60 36; 7x */
    BAS_SENSE_SERVO_REF = 17,         /* 60 33; 7x */
    BAS_SENSE_INPUT_SOURCE = 18,      /* 60 50; 7x */
    BAS_SENSE_SYNC_OFFSET = 19,       /* 60 78; 7x */
    BAS_SENSE_RESOLUTION = 20,        /* 60 90; 7x */
    BAS_SENSE_CHASE_MODE = 21,        /* 60 91; 7x */
    BAS_SENSE_COMP_RATIO = 22,        /* 61 94 01; 7x */
    BAS_SENSE_CURRENT_FIELD = 23,     /* 60 A2; 7x */
    BAS_SENSE_ZQ_CAPACITY = 24,       /* 60 9F; 7x */
    BAS_SENSE_DISK_NAME = 25,         /* 60 A1; 7x */
    BAS_SENSE_CACHE_SIZE = 26,        /* 60 A8; 7x */
    BAS_SENSE_STEP_REC = 27,          /* 60 A9; 7x */
    BAS_SENSE_NR_AUDIO_CHANNEL = 28,  /* 60 AD; 7x */
    BAS_SENSE_VIDEO_STD = 29,         /* 60 AE; 7x */
    BAS_SENSE_IP_ADDRESS = 30,        /* 60 B3; 7x with 4 data bytes at least, result as text */
    BAS_SENSE_FIELD0 = 31,            /* 60 B4; 7x */
    BAS_SENSE_HARDWARE = 32,          /* 60 B0; 7x */
    BAS_SENSE_LAST_FIELD = 33,        /* 60 B5; 7x */
    /* 34 to 39: the media queries, served by their own operations, not by the basic sense. */
    BAS_SENSE_TAVON_LOADED_VIDEO = 34,
    BAS_SENSE_TAVON_LOADED_AUDIO = 35,
    BAS_SENSE_TAVON_GENERAL_VIDEO = 36,
    BAS_SENSE_TAVON_GENERAL_AUDIO = 37,
    BAS_SENSE_TAVON_STARTUP_VIDEO = 38,
    BAS_SENSE_TAVON_STARTUP_AUDIO = 39,
    BAS_SENSE_PROTOCOL_VERSION = 40, /* 61 B0 00; 7x with at least one data byte, echoing B0 00 */
    BAS_SENSE_LOOP_MODE = 41,        /* 60 B7; exactly 71 B7 */
    BAS_SENSE_LAST = 42              /* the count: not a sense */
} e_basic_sense;

#endif
