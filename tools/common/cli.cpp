// The command line's options, messages and exit statuses every program shares.
#include "cli.h"

#include "output.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace cli {

namespace {

const char* program_name = "";

const Option* by_name(std::span<const Option> known, std::string_view name) {
    for (const Option& option : known)
        if (name == option.name)
            return &option;
    return nullptr;
}

const Option* by_letter(std::span<const Option> known, char letter) {
    for (const Option& option : known)
        if (option.letter != 0 && option.letter == letter)
            return &option;
    return nullptr;
}

[[noreturn]] void unknown(std::string_view word) {
    throw Refused("unknown option " + quote(word));
}

// Refuses `option`, just given, when it sets one thing and was given before.
void once(const CommandLine& line, const Option* option) {
    if (!option->has_value || option->repeatable)
        return;
    if (std::count_if(line.options.begin(), line.options.end(),
                      [&](const CommandLine::Given& given) { return given.option == option; }) > 1)
        throw Refused("option '--" + std::string(option->name) + "' given twice");
}

} // namespace

CommandLine parse(int argc, char* const* argv, std::span<const Option> known) {
    CommandLine line;
    bool options_ended = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const bool option = !options_ended && word.size() > 1 && word[0] == '-' &&
                            !(word[1] >= '0' && word[1] <= '9');
        if (!option) {
            line.words.push_back(argv[i]);
            continue;
        }
        if (word == "--") {
            options_ended = true;
            continue;
        }
        // The value of `found`: what follows it in this word, else the next word.
        auto value = [&](const Option* found, const char* attached) -> const char* {
            if (!found->has_value)
                return nullptr;
            if (attached && *attached)
                return attached;
            if (i + 1 >= argc)
                throw Refused("option " + quote(word) + " needs a value");
            return argv[++i];
        };
        if (word.substr(0, 2) == "--") {
            const size_t equals = word.find('=');
            const Option* found = by_name(known, word.substr(2, equals - 2));
            if (!found || (equals != std::string_view::npos && !found->has_value))
                unknown(word.substr(0, equals));
            const char* attached =
                equals == std::string_view::npos ? nullptr : argv[i] + equals + 1;
            if (attached && !*attached)
                throw Refused("option " + quote(word) + " needs a value");
            line.options.push_back({found, value(found, attached)});
            once(line, found);
            continue;
        }
        for (size_t at = 1; at < word.size(); ++at) { // "-jq", "-n5", "-n 5"
            const Option* found = by_letter(known, word[at]);
            if (!found)
                unknown(std::string("-") + word[at]);
            line.options.push_back({found, value(found, argv[i] + at + 1)});
            once(line, found);
            if (found->has_value)
                break;
        }
    }
    return line;
}

std::string quote(std::string_view text) {
    constexpr size_t kShown = 40;
    return "'" + printable(text.substr(0, kShown)) + (text.size() > kShown ? "'..." : "'");
}

std::string printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            char escaped[5];
            snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
        }
    }
    return out;
}

const char* program() {
    return program_name;
}

int failure(const std::string& message) {
    fprintf(stderr, "%s: %s\n", program_name, message.c_str());
    return 1;
}

int run(const char* name, const std::function<int()>& body) {
    program_name = name;
    check_output();
    int status = 0;
    try {
        status = body();
    } catch (const Refused& refused) {
        fprintf(stderr, "%s: %s\nTry '%s --help'.\n", name, refused.what(), name);
        status = 2;
    } catch (const std::exception& error) {
        status = failure(error.what());
    }
    return finish_output(status);
}

} // namespace cli
