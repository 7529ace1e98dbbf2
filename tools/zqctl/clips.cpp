// zqctl's clip commands: the ID list walked to its end, an ID's length and status, erase, cue and
// record by ID; Odetics frames for Sony, Louth's own otherwise.
#include "zqctl.h"

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

int list(Session& s, Args) {
    std::vector<std::string> ids;
    char id[256] = {};
    int result = s.louth ? zqhandler_cmd_louth_sense_firstID(s.zqh, s.unit, id)
                         : zqhandler_cmd_odetics_sense_firstID(s.zqh, id);
    while (result >= 0) {
        ids.push_back(trimmed(id));
        result = s.louth ? zqhandler_cmd_louth_sense_nextID(s.zqh, s.unit, id)
                         : zqhandler_cmd_odetics_sense_nextID(s.zqh, id);
    }
    // The list ends with "not found"; anything else is a failure.
    if (s.zqh->lasterr != S9P_NOTFOUND)
        return failed(s, "clip list");
    print_list(s, "clips", ids);
    return 0;
}

int length(Session& s, Args args) {
    char tc[16] = {};
    int result = s.louth ? zqhandler_cmd_louth_sense_id_length(s.zqh, s.unit, args[0], tc)
                         : zqhandler_cmd_odetics_sense_id_length(s.zqh, args[0], tc);
    if (result != 0)
        return failed(s, "clip length");
    print_text(s, "length", tc);
    return 0;
}

int status(Session& s, Args args) {
    if (s.louth)
        return refused("clip status", "not a Louth command");
    uint8_t status = 0;
    if (zqhandler_cmd_odetics_sense_id_status(s.zqh, args[0], &status) != 0)
        return failed(s, "clip status");
    print_bytes(s, "status", {&status, 1});
    return 0;
}

int erase(Session& s, Args args) {
    int result = s.louth ? zqhandler_cmd_louth_eraseID(s.zqh, s.unit, args[0])
                         : zqhandler_cmd_odetics_eraseID(s.zqh, args[0]);
    return result == 0 ? 0 : failed(s, "clip erase");
}

// Cue by ID: Louth's play cue; Odetics presets the ID's in-point.
int cue(Session& s, Args args) {
    int result = s.louth ? zqhandler_cmd_louth_cue_play(s.zqh, s.unit, args[0])
                         : zqhandler_cmd_odetics_inPreset(s.zqh, args[0], nullptr);
    return result == 0 ? 0 : failed(s, "clip cue");
}

// Record cue-up by ID: the clip a following record fills.
int record(Session& s, Args args) {
    int result = s.louth ? zqhandler_cmd_louth_record_init(s.zqh, s.unit, args[0])
                         : zqhandler_cmd_odetics_recordCueUp(s.zqh, args[0], nullptr);
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
