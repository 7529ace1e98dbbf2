// Management protocol, the library's side: what an answer datagram says, read from its bytes
// alone so that any datagram can be handed to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/mgmt.h>

// A header field (MGMT_HEADER_SIZE bytes in, at `offset`) of a received datagram; a field the
// datagram does not hold whole reads as 0, as it would from the cleared header.
uint16_t mgmt_field(std::span<const uint8_t> datagram, size_t offset);

// The data of a log or disk-information answer: `size` bytes as announced, but no more than the
// datagram carries after its header and no more than `capacity`.
std::span<const uint8_t> mgmt_announced_data(std::span<const uint8_t> datagram, size_t capacity);

// The data of a picture answer: every byte after the header, up to `capacity`; `size` is not read.
std::span<const uint8_t> mgmt_picture_data(std::span<const uint8_t> datagram, size_t capacity);

// An upload's answer: accepted when its msgType is 0 (so also when it is too short to hold it).
bool mgmt_upload_accepted(std::span<const uint8_t> datagram);
