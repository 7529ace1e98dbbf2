// gpiomqtt's pure parts where the end-to-end checks cannot reach: SHA-1 around its padding edges
// and the UUIDs against independent oracles (FIPS 180 examples, Python's hashlib and uuid.uuid5),
// on either byte order; followed messages too long or not UTF-8; GPI events no board line makes;
// and each refusal of the command line.
#include "ids.h"
#include "is07.h"
#include "lines.h"
#include "options.h"
#include "sha1.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace gpiomqtt;

std::vector<uint8_t> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(Sha1, digests_match_the_published_examples_around_each_padding_edge) {
    const std::pair<std::string, const char*> rows[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"}, // one last block
        {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"}, // two
        {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto& [message, expected] : rows) {
        std::string text;
        char hex[3];
        for (const uint8_t byte : sha1(bytes(message))) {
            snprintf(hex, sizeof hex, "%02x", byte);
            text += hex;
        }
        EXPECT_EQ(text, expected) << message.size() << " bytes";
    }
}

TEST(BoardIds, equal_python_uuid5_of_the_documented_names) {
    const BoardIds ids = board_ids("studio-a");
    EXPECT_EQ(ids.connection, "4f46dc94-0a1c-5772-853d-ec4182656fbe");
    EXPECT_EQ(ids.source[0], "86b35b05-8598-5ed4-9f75-0989af2a6722");
    EXPECT_EQ(ids.flow[7], "0297d170-6bb2-5321-8dc7-ee2d1f5ad00a");
}

TEST(Is07, a_followed_message_is_read_whole_or_refused_by_cause) {
    const std::string state = R"({"message_type":"state","event_type":"boolean","payload":)";
    const std::pair<std::string, Refusal> rows[] = {
        {state + R"({"value":false},"extra":[1,2]})", Refusal::None},
        {state + R"({"value":true},"pad":")" + std::string(kLongestState, 'x') + "\"}",
         Refusal::TooLong},
        {"{\"message_type\":\"state\xFF\"}", Refusal::NotJson}, // not UTF-8
        {state + "true}", Refusal::NotBoolean},
    };
    for (const auto& [payload, refusal] : rows)
        EXPECT_EQ(read_state(bytes(payload)).refusal, refusal) << payload.substr(0, 80);
}

TEST(GpiLines, events_no_board_line_makes_publish_nothing_and_are_counted) {
    const struct {
        int32_t line, status;
        std::vector<bool> values;
    } steps[] = {
        {3, 2, {}},            // a pulse before the level is known
        {3, 0, {false}},       // known from now on
        {3, 2, {true, false}}, // raised and dropped between two polls
        {8, 1, {}},            // no such line
        {-1, 0, {}},           // no such line
        {2, 3, {}},            // no such status
        {2, -1, {}},           // no such status
    };
    GpiLines lines;
    for (uint32_t i = 0; i < std::size(steps); ++i) {
        const Publication got = lines.take(gpioEncode({steps[i].line, steps[i].status}), {100, i});
        EXPECT_EQ(std::vector<bool>(got.values.begin(), got.values.begin() + got.count),
                  steps[i].values)
            << "step " << i;
    }
    for (const size_t size : {7u, 9u})
        EXPECT_EQ(lines.take(std::vector<uint8_t>(size, 1), {}).count, 0) << size << " bytes";
    EXPECT_EQ(lines.line(3).origin.nanoseconds, 2u) << "the pulse's arrival";
    EXPECT_FALSE(lines.line(2).known) << "a bad status teaches nothing";
    EXPECT_EQ(std::vector<uint64_t>({lines.unpublished(Unpublished::PulseOfUnknownLine),
                                     lines.unpublished(Unpublished::LineOutOfRange),
                                     lines.unpublished(Unpublished::StatusOutOfRange),
                                     lines.unpublished(Unpublished::NotEightBytes)}),
              std::vector<uint64_t>({1, 2, 2, 2}));
}

// What parse_options says of `words`: "" when it takes them.
std::string refusal(std::vector<std::string> words) {
    words.insert(words.begin(), "gpiomqtt");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    try {
        parse_options(static_cast<int>(argv.size()), argv.data());
        return "";
    } catch (const std::exception& error) {
        return error.what();
    }
}

TEST(Options, each_bad_value_is_refused_by_name_before_anything_connects) {
    char made[] = "/tmp/vlm-gpiomqtt-XXXXXX";
    ASSERT_NE(mkdtemp(made), nullptr);
    const std::string dir = made, good = dir + "/good", bad = dir + "/bad";
    std::ofstream(good) << "board7:s3cr:et\n";
    std::ofstream(bad) << ":no user\n";
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"--broker", "10.0.0.5:1883", "--id", "studio-a", "--gpo", "2=a/b", "--qos", "0",
          "--forward", "42010", "--password-file", good, "-v"},
         ""},
        {{"--broker", "10.0.0.5"}, "--broker: '10.0.0.5' is not HOST:PORT"},
        {{"--qos", "3"}, "--qos: '3' is not a number from 0 to 2"},
        {{"--id", "two words"},
         "--id: 'two words' is not a name of 1 to 64 printable characters without blanks"},
        {{"--gpo", "2"}, "--gpo: '2' is not LINE=TOPIC"},
        {{"--gpo", "8=a"}, "--gpo: LINE: '8' is not a number from 0 to 7"},
        {{"--gpo", "1=a/#"}, "--gpo: 'a/#' is not a topic without wildcards (+ #)"},
        {{"--gpo", "1=a", "--gpo", "1=b"}, "--gpo: line 1 already follows 'a'"},
        {{"--forward", "42000"}, "--forward: 42000 is the port gpiomqtt receives on"},
        {{"--password-file", bad},
         "--password-file: " + bad + " does not hold USER:PASSWORD on one line"},
        {{"--cafile", dir + "/missing"}, dir + "/missing: No such file or directory"},
    };
    for (const auto& [words, expected] : rows)
        EXPECT_EQ(refusal(words), expected) << words[0] << " " << words.back();
    std::filesystem::remove_all(dir);
}

} // namespace
