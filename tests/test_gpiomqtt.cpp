// gpiomqtt's pure parts: SHA-1 and the UUIDs against independent oracles (FIPS 180 examples,
// Python's hashlib and uuid.uuid5), the states a GPI event publishes, what a followed message
// does, and the command line as a person mistypes it.
#include "cli.h"
#include "ids.h"
#include "is07.h"
#include "lines.h"
#include "options.h"
#include "sha1.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using namespace gpiomqtt;

std::vector<uint8_t> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(Sha1, digests_match_the_published_examples_around_each_padding_edge) {
    const struct {
        std::string message;
        const char* digest;
    } rows[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"}, // one last block
        {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"}, // two
        {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto& row : rows) {
        const Sha1Digest digest = sha1(bytes(row.message));
        char text[41] = {};
        for (size_t i = 0; i < digest.size(); ++i)
            snprintf(text + 2 * i, 3, "%02x", digest[i]);
        EXPECT_STREQ(text, row.digest) << row.message.size() << " bytes";
    }
}

TEST(BoardIds, equal_python_uuid5_of_the_documented_names) {
    const struct {
        const char* identity;
        const char* connection;
        const char* source0;
        const char* flow7;
    } rows[] = {
        {"test", "06c3b4f8-904b-5113-a0dc-ee3f04147e2f", "8cfea031-d086-5414-bf02-65dd02509e2e",
         "afc5c1aa-d031-56a3-9680-082f8d1bbedc"},
        {"studio-a.example", "731cba3c-63e8-54c4-af38-134fa141ed3f",
         "19af6cbb-9541-5771-afbc-a256c70257a6", "932fec73-e86b-5d4d-97a3-e38f25b275ca"},
        {"x:gpi:1", "b3e22859-3b48-54f7-b7da-4baf0651d7e8", "3c0287f8-1aa3-5cf8-9d77-a44dd4420b5f",
         "f5d787ec-8e8e-5995-a924-73e88d9af24e"},
    };
    for (const auto& row : rows) {
        const BoardIds ids = board_ids(row.identity);
        EXPECT_EQ(ids.connection, row.connection) << row.identity;
        EXPECT_EQ(ids.source[0], row.source0) << row.identity;
        EXPECT_EQ(ids.flow[7], row.flow7) << row.identity;
    }
}

TEST(Is07, a_followed_message_is_a_gpo_value_only_when_it_is_a_boolean_state) {
    const std::string state = R"("message_type":"state","event_type":"boolean")";
    const struct {
        std::string payload;
        Refusal refusal;
        bool value;
    } rows[] = {
        {"{" + state + R"(,"payload":{"value":true}})", Refusal::None, true},
        {"{" + state + R"(,"payload":{"value":false},"extra":[1,2]})", Refusal::None, false},
        {"", Refusal::Empty, false},
        {"{" + state + R"(,"payload":{"value":true},"pad":")" + std::string(4096, 'x') + "\"}",
         Refusal::TooLong, false},
        {"{" + state, Refusal::NotJson, false},
        {"[true]", Refusal::NotJson, false},
        {"{\"message_type\":\"state\xFF\"}", Refusal::NotJson, false}, // not UTF-8
        {R"({"message_type":"shutdown","event_type":"boolean","payload":{"value":true}})",
         Refusal::NotState, false},
        {R"({"message_type":"state","event_type":"number","payload":{"value":1}})",
         Refusal::OtherType, false},
        {"{" + state + R"(,"payload":{"value":1}})", Refusal::NotBoolean, false},
        {"{" + state + R"(,"payload":{"value":"true"}})", Refusal::NotBoolean, false},
        {"{" + state + R"(,"payload":true})", Refusal::NotBoolean, false},
    };
    for (const auto& row : rows) {
        const FollowedState read = read_state(bytes(row.payload));
        EXPECT_EQ(read.refusal, row.refusal) << row.payload.substr(0, 80);
        if (row.refusal == Refusal::None) {
            EXPECT_EQ(read.value, row.value) << row.payload;
        }
    }
}

TEST(GpiLines, each_event_publishes_its_level_a_pulse_both_edges_and_bad_events_nothing) {
    struct Step {
        std::vector<uint8_t> datagram;
        int count;
        std::array<bool, 2> values;
    };
    const auto event = [](int32_t line, int32_t status) {
        const GpioDatagram bytes = gpioEncode({line, status});
        return std::vector<uint8_t>(bytes.begin(), bytes.end());
    };
    const Step steps[] = {
        {event(3, 2), 0, {}},            // a pulse before the level is known
        {event(3, 1), 1, {true}},
        {event(3, 2), 2, {false, true}}, // dropped and raised between two polls
        {event(3, 0), 1, {false}},
        {event(3, 2), 2, {true, false}},
        {event(0, 1), 1, {true}},
        {event(7, 0), 1, {false}},
        {event(8, 1), 0, {}},
        {event(-1, 0), 0, {}},
        {event(255, 0xF3), 0, {}},
        {event(2, 3), 0, {}},
        {event(2, -1), 0, {}},
        {{0, 0, 0, 3, 0, 0, 0}, 0, {}},
        {{0, 0, 0, 3, 0, 0, 0, 1, 0}, 0, {}},
    };
    GpiLines lines;
    for (size_t i = 0; i < std::size(steps); ++i) {
        const Publication got = lines.take(steps[i].datagram, {100, static_cast<uint32_t>(i)});
        EXPECT_EQ(got.count, steps[i].count) << "step " << i;
        for (int v = 0; v < got.count && v < steps[i].count; ++v)
            EXPECT_EQ(got.values[static_cast<size_t>(v)], steps[i].values[static_cast<size_t>(v)])
                << "step " << i << " value " << v;
    }
    EXPECT_TRUE(lines.line(3).known);
    EXPECT_FALSE(lines.line(3).level);
    EXPECT_EQ(lines.line(3).origin.nanoseconds, 4u) << "the pulse's arrival";
    EXPECT_TRUE(lines.line(0).known && lines.line(0).level);
    EXPECT_FALSE(lines.line(1).known);
    EXPECT_FALSE(lines.line(2).known) << "a bad status teaches nothing";
    EXPECT_EQ(lines.unpublished(Unpublished::PulseOfUnknownLine), 1u);
    EXPECT_EQ(lines.unpublished(Unpublished::LineOutOfRange), 3u);
    EXPECT_EQ(lines.unpublished(Unpublished::StatusOutOfRange), 2u);
    EXPECT_EQ(lines.unpublished(Unpublished::NotEightBytes), 2u);
}

class Options : public ::testing::Test {
  protected:
    void SetUp() override {
        char made[] = "/tmp/vlm-gpiomqtt-XXXXXX";
        ASSERT_NE(mkdtemp(made), nullptr);
        dir_ = made;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string file(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    // What parse_options says of `words`: "" when it takes them.
    static std::string refusal(std::vector<std::string> words) {
        words.insert(words.begin(), "gpiomqtt");
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        try {
            gpiomqtt::parse_options(static_cast<int>(argv.size()), argv.data());
            return "";
        } catch (const std::exception& error) {
            return error.what();
        }
    }
    std::string dir_;
};

TEST_F(Options, bad_values_are_refused_by_name_before_anything_connects) {
    const std::string good = file("good", "board7:s3cr:et\n");
    const struct {
        std::vector<std::string> words;
        std::string refusal;
    } rows[] = {
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
        {{"--password-file", file("none", "")},
         "--password-file: " + dir_ + "/none does not hold USER:PASSWORD on one line"},
        {{"--password-file", file("nouser", ":pw\n")},
         "--password-file: " + dir_ + "/nouser does not hold USER:PASSWORD on one line"},
        {{"--password-file", dir_}, dir_ + ": Is a directory"},
        {{"--cafile", dir_ + "/missing"}, dir_ + "/missing: No such file or directory"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(refusal(row.words), row.refusal) << row.words[0] << " " << row.words.back();
}

} // namespace
