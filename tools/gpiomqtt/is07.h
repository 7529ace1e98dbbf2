// The IS-07 (NMOS Event & Tally) messages of a boolean source: the state a GPI line publishes,
// the client's connection status and the shutdown notice, and the reading of a state a GPO line
// follows. Messages are compact JSON on one line.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace gpiomqtt {

// A TAI instant, written "seconds:nanoseconds" in messages.
struct TaiTime {
    int64_t seconds = 0;
    uint32_t nanoseconds = 0;
};
std::string tai_text(TaiTime time);

// The kernel's CLOCK_TAI once something (chrony, ntpd, ptp4l) has told the kernel its TAI offset;
// until then CLOCK_TAI reads as UTC, and the time is UTC plus kLeapSeconds.
constexpr int kLeapSeconds = 37; // TAI - UTC since 1 January 2017
TaiTime tai_now();

struct SourceIdentity {
    const std::string& source_id;
    const std::string& flow_id;
};

// A boolean state: `origin` is when the event reached the program, `creation` when this message
// was made (a state published again after a reconnection keeps its origin).
std::string state_message(SourceIdentity identity, bool value, TaiTime origin, TaiTime creation);
// {"active": ..., "message_type": "connection_status"}.
std::string connection_status(bool active);
std::string shutdown_message(SourceIdentity identity, TaiTime creation);

// Why a message on a followed topic changed nothing.
enum class Refusal {
    None,
    Empty,         // no payload (a retained state being cleared)
    TooLong,       // more than kLongestState bytes
    NotJson,       // not a JSON object
    NotState,      // message_type is not "state"
    OtherType,     // event_type is not "boolean"
    NotBoolean,    // payload.value missing or not true or false
    OtherTopic,    // a topic no GPO line follows
    Count
};
const char* refusal_text(Refusal refusal);
constexpr size_t kLongestState = 4096; // a state is about 300 bytes

struct FollowedState {
    Refusal refusal = Refusal::None;
    bool value = false; // meaningful when refusal is None
};
// Reads a message received on a followed topic; any bytes at all.
FollowedState read_state(std::span<const uint8_t> payload);

} // namespace gpiomqtt
