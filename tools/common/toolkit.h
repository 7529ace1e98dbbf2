// Small helpers shared by the tools and the tests: loopback addresses and bytes as hex text.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

// 127.0.0.1:port.
sockaddr_in loopback_address(uint16_t port);
// "43 BF F0 04 0C 02".
std::string hex(const std::vector<uint8_t>& bytes);
// The bytes of hex text such as "43 BF f0" (pairs of digits, spaces between bytes optional);
// false, with `bytes` unspecified, for anything else.
bool parse_hex(const std::string& text, std::vector<uint8_t>& bytes);
