// A short C++ controller: connects to a video server by UDP, starts it playing and reads its
// timecode, the handle owned by a unique_ptr. Built with CMake: find_package(zqhandler).
#include <cstdio>
#include <memory>
#include <string>
#include <zqhandler/zqhandler.h>

namespace {

using Server = std::unique_ptr<t_zqhandler, decltype(&zqhandler_delete)>;

int failure(Server& server, const char* what) {
    std::fprintf(stderr, "%s: %s\n", what, s9p_strerror(zqhandler_get_last_err(server.get())));
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    Server server(zqhandler_create(), zqhandler_delete);
    if (!server)
        return 1;
    if (zqhandler_connect_eth(server.get(), argv[1], argv[2]) != 0)
        return failure(server, "connect");
    if (zqhandler_cmd_basic(server.get(), BAS_CMD_PLAY) != 0)
        return failure(server, "play");
    char timecode[ZQ_TC_BYTES];
    if (zqhandler_cmd_sense_timecode(server.get(), BAS_SENSE_TC, timecode) != 0)
        return failure(server, "timecode");
    std::printf("playing at %s\n", timecode);
    return 0;
}
