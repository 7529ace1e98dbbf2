// A pcap file of what a program sends and receives on its links, the serial line included, for
// the dissector in tools/wireshark (vlm.lua). Link type 147 (USER0); every record is a 16-byte
// header, big-endian, then the bytes as the program read or wrote them:
//   0      version, 1
//   1      direction: 1 to the device (controller to server), 2 from the device
//   2      link: 1 datagram (UDP), 2 serial line, 3 stream (TCP connection protocol)
//   3      protocol: 0 for datagrams (their 10-byte header says), 1 Sony 9-pin or 2 Louth on a
//          serial line, 4 the connection protocol on a stream
//   4-7    controller's IPv4 address   8-9   controller's port
//   10-13  device's IPv4 address       14-15 device's port, or the serial line's number
// The writer only writes: it is given a descriptor already open on the file (creating the file
// safely is the caller's business) and neither closes nor seeks it.
#pragma once

#include <cstdint>
#include <mutex>
#include <netinet/in.h>
#include <span>
#include <vector>

namespace pcap {

// Who writes the file: a stand-in for the server (the device) or a controller. It decides which
// end of a datagram or stream is which, and which way "received" goes.
enum class Role : uint8_t { device, controller };
enum class Direction : uint8_t { received, sent };
// What a serial line carries.
enum class Serial : uint8_t { sony = 1, louth = 2 };

constexpr uint32_t kLinkType = 147;
// A stream record holds at most this many bytes; longer writes become several records.
constexpr size_t kMaxRecord = 65535;

// Records from several threads never interleave. Each call returns false, with errno set, when
// the file did not take the whole record (EMSGSIZE: a datagram or serial record longer than
// kMaxRecord, nothing written).
class Writer {
  public:
    // Borrows `fd`, which must stay open as long as the writer is used. Writes nothing.
    Writer(int fd, Role role) : fd_(fd), role_(role) {}

    // The file's global header, once, before any record.
    bool begin();
    // One whole datagram (its 10-byte header and what follows) between `local`, this program's
    // end, and `peer`.
    bool datagram(Direction direction, const sockaddr_in& local, const sockaddr_in& peer,
                  std::span<const uint8_t> bytes);
    // Bytes of a connection-protocol stream: whole messages (a header with its inline frame), or
    // raw bytes of a transfer, which may be spread over any number of calls.
    bool stream(Direction direction, const sockaddr_in& local, const sockaddr_in& peer,
                std::span<const uint8_t> bytes);
    // Whole frames of serial line `line`, one after another.
    bool serial(Direction direction, Serial protocol, uint16_t line,
                std::span<const uint8_t> bytes);

  private:
    bool record(Direction direction, uint8_t link, uint8_t protocol, const sockaddr_in* local,
                const sockaddr_in* peer, uint16_t line, std::span<const uint8_t> bytes);
    bool write_all(const std::vector<uint8_t>& bytes);

    int fd_;
    Role role_;
    std::mutex mutex_;
};

} // namespace pcap
