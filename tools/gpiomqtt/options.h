// gpiomqtt's command line, read strictly through tools/common before anything connects.
#pragma once

#include "values.h"

#include <cstdint>
#include <string>
#include <vector>

namespace gpiomqtt {

// A GPO line and the topic of the boolean source it follows.
struct Followed {
    int line;
    std::string topic;
};

struct Options {
    cli::Endpoint broker{};     // --broker HOST:PORT, 127.0.0.1:1883 by default
    std::string identity;       // --id, the host name by default
    int qos = 2;                // --qos 0, 1 or 2
    std::vector<Followed> gpo;  // --gpo LINE=TOPIC, at most one topic per line
    uint16_t forward = 0;       // --forward PORT, 0: none
    std::string username;       // from --password-file: "USER:PASSWORD" on one line
    std::string password;
    bool credentials = false;
    std::string cafile;         // --cafile, where the build has TLS
    bool verbose = false;
    bool print_ids = false;
    bool help = false;
};

extern const char kUsage[];
// Whether this build's MQTT client has TLS (the board's has none).
extern const bool kHaveTls;

// Throws cli::Refused naming the option for a bad value, std::runtime_error for a file that
// cannot be read.
Options parse_options(int argc, char* const* argv);

} // namespace gpiomqtt
