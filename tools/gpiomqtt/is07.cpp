// IS-07 messages written and read with nlohmann-json, written as every program writes JSON.
#include "is07.h"

#include "json.h"

#include <ctime>
#include <iterator>

namespace gpiomqtt {

namespace {

using cli::Json;
using cli::json_text;

Json identity_of(SourceIdentity identity) {
    return {{"source_id", identity.source_id}, {"flow_id", identity.flow_id}};
}

} // namespace

std::string tai_text(TaiTime time) {
    return std::to_string(time.seconds) + ":" + std::to_string(time.nanoseconds);
}

TaiTime tai_now() {
    timespec tai{}, utc{};
    clock_gettime(CLOCK_TAI, &tai);
    clock_gettime(CLOCK_REALTIME, &utc);
    // With the offset unset the two clocks agree (or straddle one second between the two reads).
    if (tai.tv_sec - utc.tv_sec < kLeapSeconds / 2)
        tai = {utc.tv_sec + kLeapSeconds, utc.tv_nsec};
    return {static_cast<int64_t>(tai.tv_sec), static_cast<uint32_t>(tai.tv_nsec)};
}

std::string state_message(SourceIdentity identity, bool value, TaiTime origin, TaiTime creation) {
    return json_text(
        {{"identity", identity_of(identity)},
         {"event_type", "boolean"},
         {"timing",
          {{"creation_timestamp", tai_text(creation)}, {"origin_timestamp", tai_text(origin)}}},
         {"payload", {{"value", value}}},
         {"message_type", "state"}});
}

std::string connection_status(bool active) {
    return json_text({{"active", active}, {"message_type", "connection_status"}});
}

std::string shutdown_message(SourceIdentity identity, TaiTime creation) {
    return json_text({{"identity", identity_of(identity)},
                      {"timing", {{"creation_timestamp", tai_text(creation)}}},
                      {"message_type", "shutdown"}});
}

const char* refusal_text(Refusal refusal) {
    static const char* const kTexts[] = {
        "taken",
        "an empty message",
        "a message too long to be a state",
        "not a JSON object",
        "not a state message",
        "an event type other than boolean",
        "a value that is not true or false",
        "a topic no GPO line follows",
    };
    static_assert(std::size(kTexts) == static_cast<size_t>(Refusal::Count));
    const auto index = static_cast<size_t>(refusal);
    return index < std::size(kTexts) ? kTexts[index] : "unknown";
}

FollowedState read_state(std::span<const uint8_t> payload) {
    if (payload.empty())
        return {Refusal::Empty};
    if (payload.size() > kLongestState)
        return {Refusal::TooLong};
    const nlohmann::json message =
        nlohmann::json::parse(payload.begin(), payload.end(), nullptr, false);
    if (message.is_discarded() || !message.is_object())
        return {Refusal::NotJson};
    const auto field = [&](const char* name) {
        auto found = message.find(name);
        return found == message.end() ? nlohmann::json() : *found;
    };
    if (field("message_type") != "state")
        return {Refusal::NotState};
    if (field("event_type") != "boolean")
        return {Refusal::OtherType};
    const nlohmann::json body = field("payload");
    if (!body.is_object() || !body.contains("value") || !body["value"].is_boolean())
        return {Refusal::NotBoolean};
    return {Refusal::None, body["value"].get<bool>()};
}

} // namespace gpiomqtt
