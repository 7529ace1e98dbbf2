// Any bytes as a management answer and as a transfer's answer header, with a capacity taken from
// the first two bytes: what is copied never goes beyond the datagram, its announced size or the
// capacity (the copies go into buffers of exactly that size), and a header passes only with the
// tag asked for and a size the capacity holds.
#include "cnxn_private.h"
#include "mgmt_private.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const size_t capacity = size_t(data[0]) << 8 | data[1];
    const std::span<const uint8_t> datagram(data + 2, size - 2);
    const auto announced = mgmt_announced_data(datagram, capacity);
    const auto picture = mgmt_picture_data(datagram, capacity);
    if (announced.size() > mgmt_field(datagram, 2) || picture.size() > capacity ||
        picture.size() + MGMT_HEADER_SIZE > std::max<size_t>(datagram.size(), MGMT_HEADER_SIZE) ||
        mgmt_upload_accepted(datagram) != (mgmt_field(datagram, 4) == 0))
        abort();
    for (auto copied : {announced, picture}) {
        std::vector<uint8_t> buffer(capacity);
        std::copy(copied.begin(), copied.end(), buffer.begin()); // ASan reports any overrun
    }

    if (datagram.size() < CNXN_HEADER_SIZE)
        return 0;
    const std::span<const uint8_t, CNXN_HEADER_SIZE> header(datagram.data(), CNXN_HEADER_SIZE);
    const int32_t holds = int32_t(capacity) - 1; // -1 holds nothing
    static const char kTags[][5] = {"ver ", "gfif", "uuuu", "cggp"};
    for (const auto& tag : kTags) {
        const CnxnAnnounce verdict = cnxn_check_announce(header, tag, holds);
        if ((verdict == CnxnAnnounce::wrong_tag) == std::equal(tag, tag + 4, header.begin()) ||
            (verdict == CnxnAnnounce::fits &&
             (holds < 0 || get_be32(header.data() + 4) > uint32_t(holds))))
            abort();
    }
    return 0;
}
