// Name-based UUIDs of the board's sources, flows and connection, and their topics.
#include "ids.h"

#include "sha1.h"

#include <vector>

namespace gpiomqtt {

const Uuid kUrlNamespace = {0x6b, 0xa7, 0xb8, 0x11, 0x9d, 0xad, 0x11, 0xd1,
                            0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8};

std::string uuid_v5(const Uuid& space, std::string_view name) {
    std::vector<uint8_t> bytes(space.begin(), space.end());
    bytes.insert(bytes.end(), name.begin(), name.end());
    Sha1Digest digest = sha1(bytes);
    digest[6] = static_cast<uint8_t>((digest[6] & 0x0F) | 0x50); // version 5
    digest[8] = static_cast<uint8_t>((digest[8] & 0x3F) | 0x80); // the RFC 4122 variant
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 0x0F];
    }
    return text;
}

BoardIds board_ids(std::string_view identity) {
    const std::string prefix = "urn:x-vlmgpio:gpiomqtt:" + std::string(identity);
    BoardIds ids;
    ids.connection = uuid_v5(kUrlNamespace, prefix + ":connection");
    for (int line = 0; line < kLines; ++line) {
        const std::string gpi = prefix + ":gpi:" + std::to_string(line);
        ids.source[line] = uuid_v5(kUrlNamespace, gpi + ":source");
        ids.flow[line] = uuid_v5(kUrlNamespace, gpi + ":flow");
    }
    return ids;
}

std::string source_topic(const std::string& source_id) {
    return "x-nmos/events/v1.0/sources/" + source_id;
}

std::string connection_topic(const std::string& connection_id) {
    return "x-nmos/events/v1.0/connections/" + connection_id;
}

} // namespace gpiomqtt
