// Fuzzes what gpiomqtt reads from outside: a message on a followed topic (any bytes from the
// broker) and datagrams on its GPI port. Nothing read out of bounds, no exception escapes, and a
// message taken as a GPO value really is a boolean state.
#include "is07.h"
#include "lines.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> bytes(data, size);
    const gpiomqtt::FollowedState state = gpiomqtt::read_state(bytes);
    if (state.refusal == gpiomqtt::Refusal::None) {
        const auto message = nlohmann::json::parse(bytes.begin(), bytes.end());
        if (message["message_type"] != "state" || message["event_type"] != "boolean" ||
            message["payload"]["value"] != state.value) {
            fprintf(stderr, "violated: a GPO value from a message that is not a boolean state\n");
            abort();
        }
    }
    gpiomqtt::GpiLines lines;
    for (size_t at = 0; at < size; at += 8)
        lines.take(bytes.subspan(at, std::min<size_t>(8, size - at)), {});
    return 0;
}
