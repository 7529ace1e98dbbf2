/* A short C controller: connects to a video server by UDP, starts it playing, reads its timecode
 * and works out where it will be ten seconds on, asks the server's Louth side for its status
 * and, given the port of its TCP connection protocol, fetches its disk information. The one
 * header <zqhandler/zqhandler.h> gives the whole library.
 * Build: cc controller.c $(pkg-config --cflags --libs zqhandler)
 * Run: ./controller 127.0.0.1 32896 [TCP-PORT] */
#include <stdio.h>
#include <zqhandler/zqhandler.h>

static int failed(t_zqhandler* server, const char* what) {
    fprintf(stderr, "%s: %s\n", what, s9p_strerror(zqhandler_get_last_err(server)));
    return 1;
}

/* The server's disk information over the connection protocol on `port`. */
static int disk_information(const char* address, const char* port) {
    t_zqhandler* server = zqhandler_create();
    uint8_t info[MGMT_MAX_DATA];
    int status = 1;
    if (!server)
        return 1;
    if (zqhandler_connect_tcp(server, address, port) != 0)
        status = failed(server, "connect by TCP");
    else if (zqhandler_cnxn_get_diskinfo(server, info, (int32_t)sizeof info) != 0)
        status = failed(server, "disk information");
    else {
        printf("disk information fetched\n");
        status = 0;
    }
    zqhandler_delete(server);
    return status;
}

int main(int argc, char** argv) {
    t_zqhandler* server;
    char timecode[ZQ_TC_BYTES], later[ZQ_TC_BYTES];
    uint8_t louth_status[ZQ_LOUTH_OUT_BYTES];
    int status = 1, count;
    if (argc != 3 && argc != 4) {
        fprintf(stderr, "usage: %s ADDRESS PORT [TCP-PORT]\n", argv[0]);
        return 2;
    }
    server = zqhandler_create();
    if (!server)
        return 1;
    if (zqhandler_connect_eth(server, argv[1], argv[2]) != 0)
        status = failed(server, "connect");
    else if (zqhandler_cmd_basic(server, BAS_CMD_PLAY) != 0)
        status = failed(server, "play");
    else if (zqhandler_cmd_sense_timecode(server, BAS_SENSE_TC, timecode) != 0)
        status = failed(server, "timecode");
    else if (tc_tcstradd(later, timecode, "00:00:10:00", 25, 0) != 0)
        fprintf(stderr, "timecode arithmetic: %s is no timecode\n", timecode);
    else if ((count = zqhandler_cmd_louth_sense_status(server, 0, louth_status)) < 0)
        status = failed(server, "Louth status");
    else {
        printf("playing at %s, at %s in ten seconds\n", timecode, later);
        printf("Louth status: %d bytes\n", count);
        status = argc == 4 ? disk_information(argv[1], argv[3]) : 0;
    }
    zqhandler_delete(server);
    return status;
}
