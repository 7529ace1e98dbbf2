// Helpers shared by the tools and the tests.
#include "toolkit.h"

#include <arpa/inet.h>
#include <cstdio>
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

void usage_exit(const char* usage) {
    fputs(usage, stderr);
    exit(2);
}

long number_argument(const char* text, const char* usage) {
    char* end = nullptr;
    long value = strtol(text, &end, 0);
    if (!*text || *end)
        usage_exit(usage);
    return value;
}
