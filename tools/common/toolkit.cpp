// Helpers shared by the tools and the tests.
#include "toolkit.h"

#include <arpa/inet.h>
#include <cstdlib>

sockaddr_in loopback_address(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t byte : bytes) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

bool parse_hex(const std::string& text, std::vector<uint8_t>& bytes) {
    bytes.clear();
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        char pair[3] = {text[i], i + 1 < text.size() ? text[i + 1] : '\0', '\0'};
        char* end = nullptr;
        unsigned long value = strtoul(pair, &end, 16);
        if (end != pair + 2 || pair[0] == '+' || pair[0] == '-')
            return false;
        bytes.push_back(static_cast<uint8_t>(value));
        i += 2;
    }
    return true;
}
