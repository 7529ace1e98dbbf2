// The emulator as controllers in the field see it: the public Sony 9-pin tables as a deck answers
// them, Odetics and Louth as a disk server answers them, over one link; a controller written from
// the public protocol alone on a serial line; the names the log gives frames.
#include "common.h"
#include "loopback.h"

#include <array>
#include <devsim/devsim.h>
#include <devsim/names.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <numeric>
#include <termios.h>
#include <tuple>

namespace {

using devsim::Bytes;

Bytes bytes_of(const std::string& text) {
    Bytes b;
    EXPECT_TRUE(parse_hex(text, b)) << text;
    return b;
}

uint8_t sum(const Bytes& b, size_t from = 0) {
    return static_cast<uint8_t>(std::accumulate(b.begin() + static_cast<long>(from), b.end(), 0u));
}

// Whether a Sony frame's last byte sums the others.
bool summed(const Bytes& frame) {
    return !frame.empty() && sum(Bytes(frame.begin(), frame.end() - 1)) == frame.back();
}

// A controller on the emulator's UDP link: each request in a datagram whose header's type says
// Sony (1) or Louth (5).
struct Controller {
    devsim::DevSim sim;
    UdpEndpoint me;
    sockaddr_in server = loopback_address(sim.listen_udp("127.0.0.1", 0));
    Controller() { sim.start(); }

    Bytes exchange(uint16_t type, const Bytes& frame) {
        Bytes d = {0, static_cast<uint8_t>(type), 0, static_cast<uint8_t>(frame.size())};
        d.resize(10, 0);
        d.insert(d.end(), frame.begin(), frame.end());
        me.send_to(server, d);
        const Bytes answer = me.receive(2000);
        EXPECT_GE(answer.size(), 10u);
        EXPECT_EQ(answer.size() < 2 ? -1 : answer[1], type) << "the answer's header type";
        return answer.size() < 10 ? Bytes{} : Bytes(answer.begin() + 10, answer.end());
    }
    // The Sony answer to `request` (a checksum appended unless `as_is`), without its checksum.
    std::string sony(const std::string& request, bool as_is = false) {
        Bytes frame = bytes_of(request);
        if (!as_is)
            frame.push_back(sum(frame));
        Bytes answer = exchange(1, frame);
        if (answer.size() < 3 || !summed(answer))
            return "bad answer " + hex(answer);
        answer.pop_back();
        return hex(answer);
    }
    // The Louth answer to CMD1, CMD2 and data: 04, 05 xx, or a frame's CMD1, CMD2 and data.
    std::string louth(const std::string& body, bool bad_checksum = false) {
        Bytes frame = bytes_of(body);
        frame.insert(frame.begin(), {0x02, static_cast<uint8_t>(frame.size())});
        frame.push_back(static_cast<uint8_t>(0u - sum(frame, 2) + (bad_checksum ? 1 : 0)));
        const Bytes answer = exchange(5, frame);
        if (answer.size() >= 5 && answer[0] == 0x02) {
            if (answer.size() != answer[1] + 3u || sum(answer, 2) != 0)
                return "bad answer " + hex(answer);
            return hex(Bytes(answer.begin() + 2, answer.end() - 1));
        }
        return hex(answer);
    }
};

struct Row {
    const char* request; // without its checksum...
    const char* answer;  // ...and the answer without its; " ..." ends a prefix
    std::function<void(devsim::DevSim&)> before = {};
    bool as_is = false; // the request is sent as written, its checksum included
};

void expect_answer(const std::string& got, const std::string& expected, const std::string& row) {
    const size_t prefix = expected.find(" ...");
    if (prefix == std::string::npos)
        EXPECT_EQ(got, expected) << row;
    else
        EXPECT_EQ(got.substr(0, prefix), expected.substr(0, prefix)) << row;
}

auto local(bool on) {
    return [on](devsim::DevSim& sim) { sim.model().set_local(on); };
}

// In order, on one deck: each row's answer follows from the rows before it. Timecodes are BCD,
// frames first; the status bytes are the public table's (byte 1 transport, 2 cue-up complete,
// still, direction, var, jog, shuttle, 3 edit points set and auto mode, 4 preroll, preview, auto
// edit, review, edit and EE).
// clang-format off
const Row kDeck[] = {
    {"00 11", "12 11 F0 20"},
    {"24 31 00 00 10 00", "10 01"},
    // The current time, still at 00:10:00:00: LTC is corrected, VITC read, auto takes VITC.
    {"61 0C 01", "74 14 00 00 10 00"},
    {"61 0C 02", "74 06 00 00 10 00"},
    {"61 0C 03", "74 06 00 00 10 00"},
    {"61 0C 04", "74 04 00 00 10 00"}, // this system's request: the position as LTC
    {"61 0C 08", "74 01 00 00 10 00"},
    {"44 05 11 22 33 44", "10 01"},
    {"61 0C 10", "74 05 11 22 33 44"},
    {"61 0C 20", "74 07 11 22 33 44"},
    {"61 0C 11", "78 14 00 00 10 00 11 22 33 44"},
    {"61 0C 22", "78 06 00 00 10 00 11 22 33 44"},
    // Status for a start and a size; extended status.
    {"61 20 0A", "7A 20 00 80 03 00 00 00 00 00 00 00"},
    {"61 20 F3", "73 20 00 00 00"},
    {"61 20 00", "70 20"},
    {"61 21 04", "74 21 00 00 00 00"},
    // Edit points: entry, data preset, shift, reset, recall, data sense.
    {"40 10", "10 01"},
    {"60 10", "74 10 00 00 10 00"},
    {"44 15 00 10 10 00", "10 01"},
    {"40 1A", "10 01"},
    {"60 11", "74 11 01 10 10 00"},
    {"40 19", "10 01"},
    {"60 10", "74 10 24 59 09 00"},
    {"44 16 00 00 10 00", "10 01"},
    {"40 13", "10 01"},
    {"60 13", "74 13 00 00 10 00"},
    {"61 20 31", "71 20 0F"},
    {"40 22", "10 01"},
    {"61 20 31", "71 20 0B"},
    {"40 26", "10 01"},
    {"60 12", "74 12 00 00 10 00"},
    {"40 41", "10 01"},
    {"61 20 31", "71 20 8F"},
    {"40 40", "10 01"},
    {"61 20 31", "71 20 0F"},
    // Presets and their senses.
    {"44 31 00 02 00 00", "10 01"},
    {"60 31", "74 31 00 02 00 00"},
    {"41 36 01", "10 01"},
    {"60 36", "71 36 01"},
    {"42 30 21 03", "10 01"},
    {"61 30 02", "72 30 21 03"},
    // Preroll: to IN less the preroll time, stopped there; the edits play from there.
    {"20 30", "10 01"},
    {"61 0C 01", "74 14 24 57 09 00"},
    {"61 20 14", "74 20 80 03 0F 01"},
    {"20 61", "10 01"}, {"61 20 41", "71 20 41"},
    {"20 63", "10 01"}, {"61 20 41", "71 20 C1"},
    {"20 60", "10 01"}, {"61 20 41", "71 20 01"},
    {"20 65", "10 01"}, {"61 20 41", "71 20 11"},
    {"20 64", "10 01"},
    {"20 40", "10 01"}, {"61 20 14", "74 20 01 00 0F 02"},
    {"20 41", "10 01"}, {"61 20 41", "71 20 08"},
    {"20 42", "10 01"}, {"61 20 41", "71 20 04"},
    {"20 43", "10 01"}, {"61 20 41", "71 20 02"},
    // The other transport commands.
    {"20 34", "10 01"}, {"61 20 14", "74 20 01 00 0F 00"},
    {"21 38 40", "10 01"}, {"61 20 12", "72 20 00 08"},
    {"21 39 40", "10 01"}, {"61 20 12", "72 20 00 0C"},
    {"21 11 40", "10 01"}, {"61 20 12", "72 20 00 10"},
    {"21 23 40", "10 01"}, {"61 20 12", "72 20 00 24"},
    {"20 20", "10 01"}, {"61 20 12", "72 20 08 04"},
    {"20 10", "10 01"}, {"61 20 12", "72 20 04 00"},
    {"61 0C 01", "74 04 ..."}, {"61 0C 02", "74 16 ..."}, {"61 0C 03", "74 04 ..."},
    {"20 00", "10 01"}, {"61 20 12", "72 20 20 00"},
    {"24 31 00 00 10 00", "10 01"},
    {"20 14", "10 01"}, {"61 0C 02", "74 06 01 00 10 00"},
    {"20 24", "10 01"}, {"20 24", "10 01"}, {"61 0C 02", "74 06 24 59 09 00"},
    // Local: senses and system control answer, transport and presets are refused.
    {"00 0C", "10 01"}, {"00 1D", "10 01"},
    {"20 01", "11 12 01", local(true)},
    {"44 14 00 00 10 00", "11 12 01"},
    {"61 20 01", "71 20 01"},
    {"00 11", "12 11 F0 20"},
    {"20 01", "10 01", local(false)},
    // What no table defines, an answer sent to the deck, a frame cut short or wrongly summed.
    {"20 77", "11 12 01"},
    {"50 00", "11 12 01"},
    {"60 0C", "11 12 01"},
    {"10 01", "11 12 01"},
    {"20 01 00", "11 12 04", {}, true},
    {"61 20 81", "11 12 04", {}, true},
};
// clang-format on

TEST(Deck, each_public_command_and_sense_gets_the_answer_the_tables_define) {
    Controller c;
    std::vector<std::string> traffic; // what a front panel's log would show
    c.sim.on_traffic([&](const devsim::Traffic& t) {
        if (traffic.size() < 4)
            traffic.push_back((t.direction == devsim::Direction::sent ? "> " : "< ") + t.text);
    });
    for (const Row& row : kDeck) {
        if (row.before)
            row.before(c.sim);
        expect_answer(c.sony(row.request, row.as_is), row.answer, row.request);
    }
    EXPECT_EQ(c.sim.received().at(1).text, "CUE UP WITH DATA 00:10:00:00");
    const std::vector<std::string> first = {"< DEVICE TYPE REQUEST", "> DEVICE TYPE F0 20",
                                            "< CUE UP WITH DATA 00:10:00:00", "> ACK"};
    EXPECT_EQ(traffic, first);
    const auto points = c.sim.model().snapshot().points;
    EXPECT_EQ(points[0], 25 * 599 + 24) << "IN at 00:09:59:24";
}

// The disk server: Louth (VDCP) and the Odetics extensions, on the same link.
// clang-format off
const Row kDiskServer[] = {
    {"30 11", "30 91 4E 45 57 53 20 20 20 20"}, // ID list: NEWS, WEATHER, then its end
    {"30 02", "30 82 57 45 41 54 48 45 52 20"},
    {"30 02", "30 82"},
    {"30 14 4E 45 57 53 20 20 20 20", "30 94 00 30 01 00"}, // NEWS is 00:01:30:00 long
    {"30 16 4E 45 57 53 20 20 20 20", "30 96 01"},
    {"30 16 4E 4F 4E 45 20 20 20 20", "30 96 00"},
    {"30 10", "30 90 00 02 13 29 58 09"}, // 2 IDs; 10:00:00:00 less 00:01:30:12 is 09:58:29:13
    {"30 01 01 01", "30 81 01"}, // port 1 opened with its lock: the next opener is denied
    {"30 01 01 00", "30 81 00"},
    {"20 21 01", "04"},
    {"30 01 01 00", "30 81 01"},
    {"20 22 01", "04"},
    {"20 25 4E 45 57 53 20 20 20 20 00 00 00 00 00 00 00 00", "04"},
    {"30 07", "30 87 00 4E 45 57 53 20 20 20 20"},
    // Port status: the bitmap selects status bytes 1 to 8 in order (byte 1 here: still, cue done);
    // this system's own 43 and 24 get the two bytes its server gives.
    {"30 05 43", "30 85 43 88 00"}, {"30 05 24", "30 85 24 00 00"}, {"30 05 01", "30 85 01 88"},
    {"30 05 02", "30 85 02 00"}, {"30 05 81", "30 85 81 88 00"}, {"30 05 00", "30 85 00"},
    {"30 05 FF", "30 85 FF 88 00 00 00 00 00 00 00"},
    {"30 06 01", "30 86 01 00 00 00 00"},
    {"10 01", "04"}, {"30 05 43", "30 85 43 04 00"},
    {"10 04", "04"},
    {"20 23 50 52 4F 4D 4F 20 20 20 00 00 00 00 00 00 00 00", "04"}, // record init with data
    {"30 16 50 52 4F 4D 4F 20 20 20", "30 96 01"},
    {"20 26 4E 45 57 53 20 20 20 20", "04"},
    {"30 16 4E 45 57 53 20 20 20 20", "30 96 00"},
    {"10 7F", "05 01"}, {"40 00", "05 01"},
    {"30 06 01", "05 04", {}, true}, // wrongly summed
};
const Row kOdetics[] = {
    {"A0 14", "88 14 57 45 41 54 48 45 52 20"},
    {"A0 15", "88 15 50 52 4F 4D 4F 20 20 20"},
    {"A0 15", "80 15"},
    {"A8 18 50 52 4F 4D 4F 20 20 20", "81 18 00"},
    {"69 C1 03 57 45 41 54 48 45 52 20", "74 C1 12 00 00 00"},
    {"48 14 57 45 41 54 48 45 52 20", "10 01"},
    {"61 C1 01", "79 C1 01 57 45 41 54 48 45 52 20"},
    {"A8 10 57 45 41 54 48 45 52 20", "10 01"},
    {"A0 14", "88 14 50 52 4F 4D 4F 20 20 20"},
};
// clang-format on

TEST(DiskServer, louth_and_odetics_requests_get_the_protocols_answers) {
    Controller c;
    c.sim.model().append_clip("NEWS", 90 * 25);
    c.sim.model().append_clip("WEATHER", 12);
    for (const Row& row : kDiskServer)
        EXPECT_EQ(c.louth(row.request, row.as_is), row.answer) << row.request;
    for (const Row& row : kOdetics)
        EXPECT_EQ(c.sony(row.request), row.answer) << row.request;
}

// --- a controller on the serial line, from the public protocol alone -----------------------------

// Frames of a 9-pin line: a request with its checksum, then the answer read whole.
class Line {
  public:
    explicit Line(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_NOCTTY)) {
        termios raw{};
        tcgetattr(fd_, &raw);
        cfmakeraw(&raw);
        tcsetattr(fd_, TCSANOW, &raw);
    }
    ~Line() { close(fd_); }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    Bytes ask(Bytes frame) {
        frame.push_back(sum(frame));
        EXPECT_EQ(write(fd_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        Bytes answer;
        for (size_t want = 3; answer.size() < want;) {
            pollfd p{fd_, POLLIN, 0};
            uint8_t byte;
            if (poll(&p, 1, 2000) <= 0 || read(fd_, &byte, 1) != 1)
                return {};
            answer.push_back(byte);
            want = (answer[0] & 0x0Fu) + 3;
        }
        EXPECT_TRUE(summed(answer)) << hex(answer);
        return answer;
    }
    // Writes `bytes` as they are, then adds what comes back to `got`: until it holds `count`
    // bytes (at most a second each), then whatever more comes within `linger_ms` of the last.
    void exchange(const std::string& bytes, size_t count, int linger_ms, Bytes& got) {
        const Bytes out = bytes_of(bytes);
        EXPECT_EQ(write(fd_, out.data(), out.size()), static_cast<ssize_t>(out.size()));
        uint8_t chunk[64];
        for (ssize_t n; poll(std::array{pollfd{fd_, POLLIN, 0}}.data(), 1,
                             got.size() < count ? 1000 : linger_ms) > 0 &&
                        (n = read(fd_, chunk, sizeof chunk)) > 0;)
            got.insert(got.end(), chunk, chunk + n);
    }
    // The current time of `sources` in frames at 25 a second; -1 for an answer of another kind.
    long time(uint8_t sources) {
        const Bytes a = ask({0x61, 0x0C, sources});
        auto digits = [&](int i) { return (a[i] >> 4) * 10 + (a[i] & 0x0F); };
        if (a.size() != 7 || a[0] != 0x74)
            return -1;
        last_form_ = a[1];
        return ((digits(5) * 60 + digits(4)) * 60 + digits(3)) * 25 + digits(2);
    }
    uint8_t last_form() const { return last_form_; }

  private:
    int fd_;
    uint8_t last_form_ = 0;
};

TEST(PublicController, reads_the_time_and_the_in_point_on_a_serial_line) {
    devsim::DevSim sim;
    Line line(sim.open_pty());
    sim.start();
    const Bytes ack = {0x10, 0x01, 0x11};
    const long cued = 10 * 60 * 25; // 00:10:00:00
    EXPECT_EQ(line.ask({0x24, 0x31, 0x00, 0x00, 0x10, 0x00}), ack);
    EXPECT_EQ(line.time(0x01), cued);
    EXPECT_TRUE(line.last_form() == 0x04 || line.last_form() == 0x14) << "an LTC form";

    EXPECT_EQ(line.ask({0x20, 0x01}), ack); // play: about 25 frames a second
    const auto played = Clock::now();
    usleep(1000000);
    const long ltc = line.time(0x01);
    const double seconds = static_cast<double>(elapsed_ms(played)) / 1000;
    const long vitc = line.time(0x02);
    EXPECT_GT(ltc - cued, 25 * (seconds - 0.5));
    EXPECT_LT(ltc - cued, 25 * (seconds + 0.5));
    EXPECT_NEAR(vitc, ltc, 13) << "VITC agrees with LTC";

    EXPECT_EQ(line.ask({0x20, 0x00}), ack); // stop: it holds
    const long held = line.time(0x01);
    usleep(300000);
    EXPECT_EQ(line.time(0x01), held);
    EXPECT_EQ(line.time(0x02), held);
    EXPECT_EQ(line.ask({0x40, 0x10}), ack); // IN entry
    const Bytes in = line.ask({0x60, 0x10});
    ASSERT_EQ(in.size(), 7u);
    EXPECT_EQ(hex(Bytes(in.begin(), in.begin() + 2)), "74 10");
    EXPECT_EQ(((in[5] >> 4) * 10 + (in[5] & 15)) * 60 * 60 * 25 +
                  ((in[4] >> 4) * 10 + (in[4] & 15)) * 60 * 25 +
                  ((in[3] >> 4) * 10 + (in[3] & 15)) * 25 + (in[2] >> 4) * 10 + (in[2] & 15),
              held);
    EXPECT_EQ(hex(line.ask({0x20, 0x77})), "11 12 01 24") << "an undefined command";
}

// --- bytes that form no valid frame on a serial line ------------------------------------------

// Bytes written (in pieces 2 ms apart), the one answer they get ("" when they are dropped). Each
// is followed at once by a valid frame, which must get its own answer: nothing more, nothing less.
const std::tuple<const char*, bool, std::vector<const char*>, const char*> kBadBytes[] = {
    {"wrongly summed", false, {"20 01 00"}, "11 12 04 27"},
    {"a count short of the frame", false, {"20 01 05 06 07 21"}, "11 12 04 27"},
    {"a count short of the frame, in two writes", false, {"20 01 05", "06 07 21"}, "11 12 04 27"},
    {"a count past everything sent", false, {"2F 01 21"}, ""},
    {"garbage before a frame", false, {"FF FE 20 01 21"}, "10 01 11"},
    {"stray bytes", true, {"FF FF FF"}, "05 04"},
    {"a count short of the frame", true, {"02 02 10 07 05 E4"}, "05 04"},
    {"a count past everything sent", true, {"02 09 10 01 EF"}, ""},
};

TEST(SerialLine, bytes_that_form_no_frame_get_one_answer_and_the_next_frame_its_own) {
    for (const auto& [name, louth, pieces, answer] : kBadBytes) {
        devsim::DevSim sim;
        Line line(sim.open_pty());
        sim.set_protocol(devsim::Link::serial,
                         louth ? devsim::Protocol::louth : devsim::Protocol::sony);
        sim.start();
        Bytes got, next;
        for (const char* piece : pieces)
            line.exchange(piece, 0, 2, got);
        line.exchange("", bytes_of(answer).size(), 0, got);
        EXPECT_EQ(hex(got), answer) << name;
        line.exchange(louth ? "02 02 10 01 EF" : "20 01 21", 1, 50, next);
        EXPECT_EQ(hex(next), louth ? "04" : "10 01 11") << name;
    }
}

// --- the history and the counters --------------------------------------------------------------

TEST(History, keeps_the_last_messages_and_counts_every_one) {
    Controller c;
    c.sim.keep_history(2);
    c.sim.script(devsim::Reply::late(1)); // a fault, answered all the same
    for (const char* request : {"20 00", "20 01", "20 77", "61 20 01", "20 05"})
        c.sony(request);
    ASSERT_TRUE(c.sim.wait_replies_sent(5, 2000));
    const auto received = c.sim.received();
    const auto sent = c.sim.sent();
    ASSERT_EQ(received.size(), 2u);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(received[0].text + ", " + received[1].text, "STATUS SENSE bytes 0 to 0, STANDBY ON");
    EXPECT_EQ(sent[0].text + ", " + sent[1].text, "STATUS DATA 00, ACK");
    const devsim::Counters n = c.sim.counters();
    EXPECT_EQ(std::vector<uint64_t>({n.received, n.answers, n.naks, n.faults}),
              std::vector<uint64_t>({5, 5, 1, 1}))
        << "received, answered, NAKed (20 77 is no command), faults";
}

// --- names -----------------------------------------------------------------------------------

TEST(Names, each_frame_is_named_with_its_arguments) {
    using devsim::describe_sony;
    const std::tuple<std::function<std::string(const Bytes&)>, const char*, const char*> rows[] = {
        {describe_sony, "24 31 00 00 10 00 65", "CUE UP WITH DATA 00:10:00:00"},
        {describe_sony, "61 0C 03 70", "CURRENT TIME SENSE LTC+VITC"},
        {describe_sony, "61 0C 04 71", "CURRENT TIME SENSE"}, // this system's, not timer-1
        {describe_sony, "2A AC 12 34 FF FF FF FF 00 00 00 01 19",
         "SAVE CLIP PARAMETERS clip 1234 values 4294967295 1"},
        {describe_sony, "61 20 25 A6", "STATUS SENSE bytes 2 to 6"},
        {describe_sony, "21 11 40 72", "JOG FWD speed 64 (100% of play)"},
        {describe_sony, "11 12 05 28", "NAK unknown command, checksum error"},
        {describe_sony, "43 BF F0 05 05 FC", "GPI ACTIVITY transitions 05 levels 05"},
        {describe_sony, "AC 02 00 00 10 00 4E 45 57 53 20 20 20 20 7B",
         "RECORD CUE UP 00:10:00:00 NEWS"},
        {describe_sony, "74 16 40 00 10 00 DA", "HOLD VITC TIME DATA 00:10:00;00"},
        {describe_sony, "73 B1 44 45 56 03", "PRODUCT NAME DATA 44 45 56"},
        {describe_sony, "20 77 97", "UNDEFINED 20 77"},
        {describe_sony, "20 01 00", "PLAY (bad checksum)"},
        {describe_sony, "61 20", "INCOMPLETE FRAME"},
        {devsim::describe_louth, "02 0A 20 24 4E 45 57 53 20 20 20 20 FF", "PLAY CUE NEWS"},
        {devsim::describe_louth, "02 03 13 07 FF E7", "JOG -1 frames (unit 3)"},
        {devsim::describe_louth, "05 04", "NAK checksum error"},
        {[](const Bytes& b) { return devsim::describe_stream(b, false); },
         "73 39 70 20 00 00 00 03 00 00 00 00 20 01 21", "SONY FRAME PLAY"},
        {[](const Bytes& b) { return devsim::describe_stream(b, true); },
         "67 66 69 66 00 00 0B B8 00 00 00 00", "DISK INFORMATION 3000 bytes"},
        {[](const Bytes& b) { return devsim::describe_mgmt(b, false); },
         "00 03 00 00 00 02 00 00 00 00", "GET LOG"},
    };
    for (const auto& [describe, frame, text] : rows)
        EXPECT_EQ(describe(bytes_of(frame)), text) << frame;
}

} // namespace
