// The IDs a board shows the facility: name-based UUIDs (version 5, SHA-1) of an identity and a
// line, so that a board keeps its source, flow and connection IDs across restarts and any program
// can compute them again from the same names.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace gpiomqtt {

constexpr int kLines = 8;

using Uuid = std::array<uint8_t, 16>;
// The RFC 4122 namespace for URLs and URNs (6ba7b811-9dad-11d1-80b4-00c04fd430c8).
extern const Uuid kUrlNamespace;

// The version-5 UUID of `name` in `space`, as 36 lowercase characters with hyphens.
std::string uuid_v5(const Uuid& space, std::string_view name);

// Every ID of one board. Their names, in the URL namespace, are
//   urn:x-vlmgpio:gpiomqtt:IDENTITY:gpi:LINE:source   (LINE 0 to 7)
//   urn:x-vlmgpio:gpiomqtt:IDENTITY:gpi:LINE:flow
//   urn:x-vlmgpio:gpiomqtt:IDENTITY:connection
// so `uuid.uuid5(uuid.NAMESPACE_URL, name)` in Python gives the same IDs.
struct BoardIds {
    std::string connection;
    std::array<std::string, kLines> source;
    std::array<std::string, kLines> flow;
};
BoardIds board_ids(std::string_view identity);

// The topics IS-07 puts them on.
std::string source_topic(const std::string& source_id);
std::string connection_topic(const std::string& connection_id);

} // namespace gpiomqtt
