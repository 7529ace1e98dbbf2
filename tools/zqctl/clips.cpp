// zqctl's clip commands: the ID list walked to its end, an ID's length and status, erase, cue and
// record by ID; Odetics frames for Sony, Louth's own otherwise.
#include "zqctl.h"

#include "cli.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_odetics.h>

namespace zqctl {
namespace {

// An ID as the device sent it, without the spaces that pad it to eight characters.
std::string trimmed(const char* id) {
    std::string text = id;
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

// The device's IDs, walked to the end of its list; false on a failure (lasterr says which).
bool ids(Session& s, std::vector<std::string>& found) {
    char id[256] = {};
    int result = s.louth ? zqhandler_cmd_louth_sense_firstID(s.handle(), s.unit, id)
                         : zqhandler_cmd_odetics_sense_firstID(s.handle(), id);
    while (result >= 0) {
        found.push_back(trimmed(id));
        result = s.louth ? zqhandler_cmd_louth_sense_nextID(s.zqh, s.unit, id)
                         : zqhandler_cmd_odetics_sense_nextID(s.zqh, id);
    }
    // The list ends with "not found"; anything else is a failure.
    return s.zqh->lasterr == S9P_NOTFOUND;
}

int list(Session& s, Args) {
    std::vector<std::string> found;
    if (!ids(s, found))
        return failed(s, "clip list");
    print_list(s, "clips", found);
    return 0;
}

// The ID argument of `operation`, which must be in the device's list: a server answers for an ID
// it does not hold as for an empty one. Empty when it is not there; `status` then says why.
std::string held_id(Session& s, const char* operation, const char* text, int& status) {
    const std::string id = cli::clip_id(text, operation);
    std::vector<std::string> found;
    status = ids(s, found) ? 0 : failed(s, operation);
    if (status == 0 && std::find(found.begin(), found.end(), trimmed(id.c_str())) == found.end())
        status = missing(operation, "no clip " + cli::quote(id));
    return status == 0 ? id : std::string();
}

int length(Session& s, Args args) {
    int status = 0;
    const std::string id = held_id(s, "clip length", args[0], status);
    char tc[16] = {};
    if (status != 0)
        return status;
    int result = s.louth ? zqhandler_cmd_louth_sense_id_length(s.zqh, s.unit, id.c_str(), tc)
                         : zqhandler_cmd_odetics_sense_id_length(s.zqh, id.c_str(), tc);
    if (result != 0)
        return failed(s, "clip length");
    print_text(s, "length", tc);
    return 0;
}

int status(Session& s, Args args) {
    if (s.louth)
        refused("clip status", "not a Louth command");
    int held = 0;
    const std::string id = held_id(s, "clip status", args[0], held);
    uint8_t status = 0;
    if (held != 0)
        return held;
    if (zqhandler_cmd_odetics_sense_id_status(s.zqh, id.c_str(), &status) != 0)
        return failed(s, "clip status");
    print_bytes(s, "status", {&status, 1});
    return 0;
}

int erase(Session& s, Args args) {
    int status = 0;
    const std::string id = held_id(s, "clip erase", args[0], status);
    if (status != 0)
        return status;
    int result = s.louth ? zqhandler_cmd_louth_eraseID(s.zqh, s.unit, id.c_str())
                         : zqhandler_cmd_odetics_eraseID(s.zqh, id.c_str());
    return result == 0 ? 0 : failed(s, "clip erase");
}

// Cue by ID: Louth's play cue; Odetics presets the ID's in-point.
int cue(Session& s, Args args) {
    int status = 0;
    const std::string id = held_id(s, "clip cue", args[0], status);
    if (status != 0)
        return status;
    int result = s.louth ? zqhandler_cmd_louth_cue_play(s.zqh, s.unit, id.c_str())
                         : zqhandler_cmd_odetics_inPreset(s.zqh, id.c_str(), nullptr);
    return result == 0 ? 0 : failed(s, "clip cue");
}

// Record cue-up by ID: the clip a following record fills, made if it is not there.
int record(Session& s, Args args) {
    const std::string id = cli::clip_id(args[0], "clip record");
    int result = s.louth ? zqhandler_cmd_louth_record_init(s.handle(), s.unit, id.c_str())
                         : zqhandler_cmd_odetics_recordCueUp(s.handle(), id.c_str(), nullptr);
    return result == 0 ? 0 : failed(s, "clip record");
}

const Command kCommands[] = {
    {"clip list", "", 0, 0, list, "the device's clip IDs, walked to the end"},
    {"clip length", "ID", 1, 1, length, "a clip's length as a timecode"},
    {"clip status", "ID", 1, 1, status, "a clip's status byte (Sony)"},
    {"clip erase", "ID", 1, 1, erase, "erase a clip"},
    {"clip cue", "ID", 1, 1, cue, "cue a clip (Sony: preset its in-point)"},
    {"clip record", "ID", 1, 1, record, "make ready to record a clip"},
};

} // namespace

std::span<const Command> clip_commands() {
    return kCommands;
}

} // namespace zqctl
