/* A short C controller: connects to a video server by UDP, starts it playing and reads its
 * timecode. Build: cc controller.c $(pkg-config --cflags --libs zqhandler)
 * Run: ./controller 127.0.0.1 32896 */
#include <stdio.h>
#include <zqhandler/zqhandler.h>
#include <zqhandler/zqhandler_sony.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    t_zqhandler* server = zqhandler_create();
    char timecode[ZQ_TC_BYTES];
    int status = 1;
    if (!server)
        return 1;
    if (zqhandler_connect_eth(server, argv[1], argv[2]) != 0)
        fprintf(stderr, "connect: %s\n", s9p_err_string[zqhandler_get_last_err(server)]);
    else if (zqhandler_cmd_basic(server, BAS_CMD_PLAY) != 0)
        fprintf(stderr, "play: %s\n", s9p_err_string[zqhandler_get_last_err(server)]);
    else if (zqhandler_cmd_sense_timecode(server, BAS_SENSE_TC, timecode) != 0)
        fprintf(stderr, "timecode: %s\n", s9p_err_string[zqhandler_get_last_err(server)]);
    else {
        printf("playing at %s\n", timecode);
        status = 0;
    }
    zqhandler_delete(server);
    return status;
}
