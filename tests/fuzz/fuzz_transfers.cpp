// Any bytes as a management answer and as a transfer's answer header, with a capacity taken from
// the first two bytes: what is copied never exceeds the datagram, its announced size or the
// capacity (the copies go into buffers of exactly that size), and a header passes only with the
// tag asked for and a size the capacity holds.
#include "cnxn.h"
#include "mgmt.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

void copy_into(std::span<const uint8_t> data, size_t capacity) {
    std::vector<uint8_t> buffer(capacity);
    if (data.size() > capacity)
        abort();
    std::copy(data.begin(), data.end(), buffer.begin());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const size_t capacity = size_t(data[0]) << 8 | data[1];
    const std::span<const uint8_t> datagram(data + 2, size - 2);

    std::span<const uint8_t> announced = mgmt_announced_data(datagram, capacity);
    if (announced.size() > mgmt_field(datagram, 2) ||
        (!announced.empty() && announced.data() != datagram.data() + MGMT_HEADER_SIZE))
        abort();
    copy_into(announced, capacity);
    std::span<const uint8_t> picture = mgmt_picture_data(datagram, capacity);
    if (picture.size() + MGMT_HEADER_SIZE > std::max<size_t>(datagram.size(), MGMT_HEADER_SIZE))
        abort();
    copy_into(picture, capacity);
    if (mgmt_upload_accepted(datagram) != (mgmt_field(datagram, 4) == 0))
        abort();

    if (datagram.size() < CNXN_HEADER_SIZE)
        return 0;
    std::span<const uint8_t, CNXN_HEADER_SIZE> header(datagram.data(), CNXN_HEADER_SIZE);
    static const char kTags[][5] = {"ver ", "gfif", "uuuu", "cggp"};
    for (const auto& tag : kTags) {
        const int32_t signed_capacity = int32_t(capacity) - 1; // -1 holds nothing
        CnxnAnnounce verdict = cnxn_check_announce(header, tag, signed_capacity);
        const bool tag_matches = std::equal(tag, tag + 4, header.begin());
        const uint32_t announced_size = get_be32(header.data() + 4);
        if ((verdict == CnxnAnnounce::wrong_tag) == tag_matches)
            abort();
        if (verdict == CnxnAnnounce::fits &&
            (signed_capacity < 0 || announced_size > uint32_t(signed_capacity)))
            abort();
    }
    return 0;
}
