-- Wireshark dissector for everything vlmgpiod.out and the video server it drives put on the wire:
-- the 8-byte GPI/GPO event datagrams (UDP 42000-42002), the 10-byte datagram header (UDP 32896,
-- and any port by a heuristic) in front of Sony 9-pin, Louth and management data, the TCP
-- connection protocol with its Sony tunnel and bulk transfers, and recorded links (pcap link type
-- 147, USER0: a 16-byte record header, then the bytes of a datagram, a stream or a serial line).
--
-- Installed by `cmake --install` into Wireshark's Lua plugin folder; by hand, as the build makes it
-- from this file and the table of command names (tools/common/command_names.txt):
--   tshark -X lua_script:build/dev/tools/wireshark/vlm.lua -r capture.pcap
-- Every field is under "vlm." (vlm.gpio, vlm.dgram, vlm.s9p, vlm.louth, vlm.cnxn, vlm.mgmt,
-- vlm.link). Written for Wireshark 4.0 (Lua 5.2).

local band, rshift = bit32.band, bit32.rshift

local GPI_PORT, GPO_PORT, NET_PORT = 42000, 42001, 42002
local CTRLD_PORT = 32896

local p_gpio = Proto("vlm.gpio", "VLM GPI/GPO event")
local p_dgram = Proto("vlm.dgram", "VLM datagram header")
local p_s9p = Proto("vlm.s9p", "VLM Sony 9-pin frame")
local p_louth = Proto("vlm.louth", "VLM Louth frame")
local p_cnxn = Proto("vlm.cnxn", "VLM connection protocol")
local p_mgmt = Proto("vlm.mgmt", "VLM management protocol")
local p_link = Proto("vlm.link", "VLM recorded link")

-- Fields and expert entries, declared per protocol and registered at the end of this section.
local F = {}
local E = {}
local function fields(proto, list)
    local all = {}
    for name, field in pairs(list) do
        F[name] = field
        all[#all + 1] = field
    end
    proto.fields = all
end
local function experts(proto, prefix, list)
    local all = {}
    for key, entry in pairs(list) do
        local e = ProtoExpert.new(prefix .. "." .. key, entry[1], entry[2], entry[3])
        E[prefix .. "." .. key] = e
        all[#all + 1] = e
    end
    proto.experts = all
end
local malformed = { "Malformed", expert.group.MALFORMED, expert.severity.ERROR }
-- The fields that tie an answer to its request, for protocol `p` ("s9p", "louth" ...).
local function link_fields(p, list)
    list[p .. "_request_in"] = ProtoField.framenum("vlm." .. p .. ".request_in", "Request in",
        base.NONE, frametype.REQUEST)
    list[p .. "_answer_in"] = ProtoField.framenum("vlm." .. p .. ".answer_in", "Answer in",
        base.NONE, frametype.RESPONSE)
    list[p .. "_time"] = ProtoField.relative_time("vlm." .. p .. ".time", "Answer time")
    return list
end

local checksum_status = { [0] = "Bad", [1] = "Good" }
local directions = { [1] = "to the device", [2] = "from the device" }

fields(p_gpio, {
    gpio_flow = ProtoField.uint16("vlm.gpio.flow", "Flow", base.DEC, {
        [GPI_PORT] = "GPI event", [GPO_PORT] = "GPO request",
        [NET_PORT] = "network event (GPO multicast, relayed as a GPI event)" }),
    gpio_line = ProtoField.int32("vlm.gpio.line", "Line"),
    gpio_status = ProtoField.int32("vlm.gpio.status", "Status"),
    gpio_edge = ProtoField.string("vlm.gpio.edge", "Edge"),
    gpio_levels = ProtoField.uint8("vlm.gpio.levels", "Levels of all lines", base.HEX),
})
experts(p_gpio, "vlm.gpio", {
    malformed = malformed,
    range = { "Value out of range", expert.group.PROTOCOL, expert.severity.WARN },
})

fields(p_dgram, {
    dgram_type = ProtoField.uint16("vlm.dgram.type", "Type", base.DEC,
        { [1] = "Sony 9-pin", [3] = "management", [5] = "Louth" }),
    dgram_size = ProtoField.uint16("vlm.dgram.size", "Size"),
    dgram_msgtype = ProtoField.uint16("vlm.dgram.msgtype", "Message type"),
    dgram_seqid = ProtoField.uint16("vlm.dgram.seqid", "Sequence ID"),
    dgram_seqnum = ProtoField.uint16("vlm.dgram.seqnum", "Sequence number"),
    dgram_data = ProtoField.bytes("vlm.dgram.data", "Data"),
})
experts(p_dgram, "vlm.dgram", {
    malformed = malformed,
    unknown = { "Unknown datagram type", expert.group.UNDECODED, expert.severity.WARN },
})

local nak_bits = {
    { 0x01, "unknown command" }, { 0x04, "checksum error" }, { 0x10, "parity error" },
    { 0x20, "buffer overrun" }, { 0x40, "framing error" }, { 0x80, "time-out" },
}

fields(p_s9p, link_fields("s9p", {
    s9p_direction = ProtoField.uint8("vlm.s9p.direction", "Direction", base.DEC, directions),
    s9p_cmd1 = ProtoField.uint8("vlm.s9p.cmd1", "CMD1", base.HEX),
    s9p_group = ProtoField.uint8("vlm.s9p.group", "Group", base.HEX, {
        [0x0] = "system request", [0x1] = "answer", [0x2] = "transport control",
        [0x3] = "device set-up", [0x4] = "preset and select", [0x6] = "sense request",
        [0x7] = "sense answer", [0x8] = "Odetics answer", [0xA] = "Odetics request" }, 0xF0),
    s9p_count = ProtoField.uint8("vlm.s9p.count", "Data count", base.DEC, nil, 0x0F),
    s9p_cmd2 = ProtoField.uint8("vlm.s9p.cmd2", "CMD2", base.HEX),
    s9p_name = ProtoField.string("vlm.s9p.name", "Command"),
    s9p_data = ProtoField.bytes("vlm.s9p.data", "Data"),
    s9p_checksum = ProtoField.uint8("vlm.s9p.checksum", "Checksum", base.HEX),
    s9p_checksum_status = ProtoField.uint8("vlm.s9p.checksum.status", "Checksum status",
        base.DEC, checksum_status),
    s9p_tc = ProtoField.string("vlm.s9p.tc", "Timecode"),
    s9p_drop = ProtoField.bool("vlm.s9p.tc.drop", "Drop-frame", 8, nil, 0x40),
    s9p_speed = ProtoField.uint8("vlm.s9p.speed", "Speed"),
    s9p_rate = ProtoField.double("vlm.s9p.speed.rate", "Times play speed"),
    s9p_steps = ProtoField.uint8("vlm.s9p.steps", "Frames to step"),
    s9p_clip = ProtoField.uint16("vlm.s9p.clip", "Clip"),
    s9p_field = ProtoField.uint32("vlm.s9p.field", "Field"),
    s9p_value = ProtoField.uint32("vlm.s9p.value", "Value", base.HEX_DEC),
    s9p_id = ProtoField.string("vlm.s9p.id", "ID"),
    s9p_file = ProtoField.string("vlm.s9p.file", "File name"),
    s9p_selector = ProtoField.uint8("vlm.s9p.selector", "Selector", base.HEX),
    s9p_sources = ProtoField.string("vlm.s9p.time_sources", "Time sources"),
    s9p_user_bits = ProtoField.bytes("vlm.s9p.user_bits", "User bits"),
    s9p_section = ProtoField.uint8("vlm.s9p.section", "Menu section"),
    s9p_text = ProtoField.string("vlm.s9p.text", "Text"),
    s9p_ip = ProtoField.ipv4("vlm.s9p.ip", "IP address"),
    s9p_status = ProtoField.bytes("vlm.s9p.status", "Status bytes"),
    s9p_first = ProtoField.uint8("vlm.s9p.status.first", "First status byte", base.DEC, nil, 0xF0),
    s9p_nstatus = ProtoField.uint8("vlm.s9p.status.count", "Status bytes asked", base.DEC, nil, 0x0F),
    s9p_transitions = ProtoField.uint8("vlm.s9p.gpi.transitions", "GPI transitions", base.HEX),
    s9p_levels = ProtoField.uint8("vlm.s9p.gpi.levels", "GPI levels", base.HEX),
    s9p_nak = ProtoField.uint8("vlm.s9p.nak", "NAK error bits", base.HEX),
    s9p_nak_unknown = ProtoField.bool("vlm.s9p.nak.unknown", "Unknown command", 8, nil, 0x01),
    s9p_nak_checksum = ProtoField.bool("vlm.s9p.nak.checksum", "Checksum error", 8, nil, 0x04),
    s9p_nak_parity = ProtoField.bool("vlm.s9p.nak.parity", "Parity error", 8, nil, 0x10),
    s9p_nak_overrun = ProtoField.bool("vlm.s9p.nak.overrun", "Buffer overrun", 8, nil, 0x20),
    s9p_nak_framing = ProtoField.bool("vlm.s9p.nak.framing", "Framing error", 8, nil, 0x40),
    s9p_nak_timeout = ProtoField.bool("vlm.s9p.nak.timeout", "Time-out", 8, nil, 0x80),
    s9p_tunnel = ProtoField.bool("vlm.s9p.tunnelled", "Tunnelled in the connection protocol"),
}))
experts(p_s9p, "vlm.s9p", {
    malformed = malformed,
    checksum_bad = { "Wrong checksum", expert.group.CHECKSUM, expert.severity.WARN },
    nak_received = { "NAK", expert.group.RESPONSE_CODE, expert.severity.NOTE },
    args = { "Arguments do not fit the command", expert.group.PROTOCOL, expert.severity.WARN },
    bcd = { "Not a BCD digit", expert.group.PROTOCOL, expert.severity.WARN },
    unknown = { "Command not in the catalogue", expert.group.UNDECODED, expert.severity.NOTE },
})

fields(p_louth, link_fields("louth", {
    louth_direction = ProtoField.uint8("vlm.louth.direction", "Direction", base.DEC, directions),
    louth_start = ProtoField.uint8("vlm.louth.start", "Start", base.HEX),
    louth_count = ProtoField.uint8("vlm.louth.count", "Byte count"),
    louth_cmd1 = ProtoField.uint8("vlm.louth.cmd1", "CMD1", base.HEX),
    louth_type = ProtoField.uint8("vlm.louth.type", "Command type", base.HEX, {
        [0x1] = "transport", [0x2] = "cueing, recording, erasure, ports",
        [0x3] = "sense and port opening" }, 0xF0),
    louth_unit = ProtoField.uint8("vlm.louth.unit", "Unit", base.DEC, nil, 0x0F),
    louth_cmd2 = ProtoField.uint8("vlm.louth.cmd2", "CMD2", base.HEX),
    louth_is_answer = ProtoField.bool("vlm.louth.answer", "Answer", 8, nil, 0x80),
    louth_name = ProtoField.string("vlm.louth.name", "Command"),
    louth_data = ProtoField.bytes("vlm.louth.data", "Data"),
    louth_checksum = ProtoField.uint8("vlm.louth.checksum", "Checksum", base.HEX),
    louth_checksum_status = ProtoField.uint8("vlm.louth.checksum.status", "Checksum status",
        base.DEC, checksum_status),
    louth_ack = ProtoField.uint8("vlm.louth.ack", "Acknowledge", base.HEX),
    louth_nak = ProtoField.uint8("vlm.louth.nak", "Refusal error byte", base.HEX),
    louth_id = ProtoField.string("vlm.louth.id", "ID"),
    louth_tc = ProtoField.string("vlm.louth.tc", "Timecode"),
    louth_drop = ProtoField.bool("vlm.louth.tc.drop", "Drop-frame", 8, nil, 0x40),
    louth_port = ProtoField.int16("vlm.louth.port", "Port"),
    louth_lock = ProtoField.uint8("vlm.louth.lock", "Lock flag"),
    louth_granted = ProtoField.uint8("vlm.louth.granted", "Port granted", base.DEC,
        { [1] = "granted" }),
    louth_frames = ProtoField.int32("vlm.louth.frames", "Frames to jog"),
    louth_speed = ProtoField.int32("vlm.louth.speed", "Speed (hundredths of play speed)"),
    louth_mode = ProtoField.uint8("vlm.louth.mode", "Mode", base.HEX),
    louth_what = ProtoField.uint8("vlm.louth.what", "Asked for", base.HEX),
    louth_status = ProtoField.bytes("vlm.louth.status", "Status bytes"),
    louth_ids = ProtoField.uint16("vlm.louth.ids", "IDs stored"),
    louth_found = ProtoField.uint8("vlm.louth.found", "ID stored", base.DEC,
        { [0] = "not stored", [1] = "stored" }),
}))
experts(p_louth, "vlm.louth", {
    malformed = malformed,
    checksum_bad = { "Wrong checksum", expert.group.CHECKSUM, expert.severity.WARN },
    refused = { "Refused", expert.group.RESPONSE_CODE, expert.severity.NOTE },
    args = { "Arguments do not fit the command", expert.group.PROTOCOL, expert.severity.WARN },
    bcd = { "Not a BCD digit", expert.group.PROTOCOL, expert.severity.WARN },
    unknown = { "Command not in the catalogue", expert.group.UNDECODED, expert.severity.NOTE },
})

fields(p_cnxn, link_fields("cnxn", {
    cnxn_direction = ProtoField.uint8("vlm.cnxn.direction", "Direction", base.DEC, directions),
    cnxn_tag = ProtoField.string("vlm.cnxn.tag", "Tag"),
    cnxn_name = ProtoField.string("vlm.cnxn.name", "Message"),
    cnxn_arg1 = ProtoField.uint32("vlm.cnxn.arg1", "Argument 1"),
    cnxn_arg2 = ProtoField.uint32("vlm.cnxn.arg2", "Argument 2"),
    cnxn_size = ProtoField.uint32("vlm.cnxn.size", "Size announced"),
    cnxn_frame_len = ProtoField.uint32("vlm.cnxn.frame_len", "Sony frame length"),
    cnxn_bulk = ProtoField.bytes("vlm.cnxn.bulk", "Bulk data"),
    cnxn_bulk_len = ProtoField.uint32("vlm.cnxn.bulk_len", "Bulk data length"),
    cnxn_bulk_of = ProtoField.string("vlm.cnxn.bulk_of", "Bulk data of"),
    cnxn_bulk_offset = ProtoField.uint32("vlm.cnxn.bulk_offset", "Offset in the transfer"),
}))
experts(p_cnxn, "vlm.cnxn", {
    malformed = malformed,
    refused = { "Upload refused", expert.group.RESPONSE_CODE, expert.severity.NOTE },
})

fields(p_mgmt, link_fields("mgmt", {
    mgmt_kind = ProtoField.uint8("vlm.mgmt.kind", "Kind", base.DEC,
        { [1] = "request", [2] = "answer" }),
    mgmt_code = ProtoField.uint16("vlm.mgmt.code", "Request code", base.DEC, {
        [0] = "put disk information", [1] = "get disk information", [2] = "get log" }),
    mgmt_picture = ProtoField.uint16("vlm.mgmt.picture", "Picture code"),
    mgmt_size = ProtoField.uint16("vlm.mgmt.size", "Size"),
    mgmt_data = ProtoField.bytes("vlm.mgmt.data", "Data"),
    mgmt_data_len = ProtoField.uint32("vlm.mgmt.data_len", "Data length"),
    mgmt_log = ProtoField.string("vlm.mgmt.log", "Log"),
    mgmt_accepted = ProtoField.bool("vlm.mgmt.accepted", "Upload accepted"),
}))
experts(p_mgmt, "vlm.mgmt", {
    malformed = malformed,
    refused = { "Upload refused", expert.group.RESPONSE_CODE, expert.severity.NOTE },
})

fields(p_link, {
    link_version = ProtoField.uint8("vlm.link.version", "Record header version"),
    link_direction = ProtoField.uint8("vlm.link.direction", "Direction", base.DEC, directions),
    link_kind = ProtoField.uint8("vlm.link.kind", "Link", base.DEC,
        { [1] = "datagram (UDP)", [2] = "serial line", [3] = "stream (TCP)" }),
    link_protocol = ProtoField.uint8("vlm.link.protocol", "Protocol", base.DEC, {
        [0] = "as the datagram header says", [1] = "Sony 9-pin", [2] = "Louth",
        [4] = "connection protocol" }),
    link_controller = ProtoField.ipv4("vlm.link.controller", "Controller address"),
    link_controller_port = ProtoField.uint16("vlm.link.controller_port", "Controller port"),
    link_device = ProtoField.ipv4("vlm.link.device", "Device address"),
    link_device_port = ProtoField.uint16("vlm.link.device_port", "Device port"),
    link_line = ProtoField.uint16("vlm.link.line", "Serial line"),
})
experts(p_link, "vlm.link", { malformed = malformed })

------------------------------------------------------------------ shared helpers

-- The Info column: the first PDU of a packet replaces what lower layers wrote, later ones follow
-- it. pinfo.private lives for one dissection of one packet, so revisits start afresh.
local function info(pinfo, protocol, text)
    if pinfo.private.vlm_info == nil then
        pinfo.private.vlm_info = "1"
        pinfo.cols.protocol:set(protocol)
        pinfo.cols.info:set(text)
    else
        pinfo.cols.info:append(", " .. text)
    end
end

-- A name for the next PDU of `kind` in this packet, the same on every pass over the capture.
local function pdu_id(pinfo, kind)
    local key = "vlm_n_" .. kind
    local n = tonumber(pinfo.private[key] or "0") + 1
    pinfo.private[key] = tostring(n)
    return pinfo.number .. ":" .. n
end

local function hex(tvbrange)
    if tvbrange == nil then return "" end
    local s = tostring(tvbrange:bytes())
    return (s:gsub("(%x%x)", "%1 "):gsub(" $", ""):upper())
end

-- Four BCD bytes, frames first, into "HH:MM:SS:FF" (";" before the frames when bit 6 of the
-- frames byte marks drop-frame). Bits above the tens digit are the device's flags. A nibble
-- above 9 becomes the character after "9", as the library writes it, and is reported.
local function bcd_timecode(range)
    local b0, b1, b2, b3 = range(0, 1):uint(), range(1, 1):uint(), range(2, 1):uint(),
        range(3, 1):uint()
    local digits = { band(rshift(b3, 4), 3), band(b3, 15), rshift(b2, 4), band(b2, 15),
        band(rshift(b1, 4), 7), band(b1, 15), band(rshift(b0, 4), 3), band(b0, 15) }
    local c, bad = {}, false
    for i, d in ipairs(digits) do
        c[i] = string.char(48 + d)
        bad = bad or d > 9
    end
    local drop = band(b0, 0x40) ~= 0
    return c[1] .. c[2] .. ":" .. c[3] .. c[4] .. ":" .. c[5] .. c[6] .. (drop and ";" or ":") ..
        c[7] .. c[8], drop, bad
end

-- Two BCD bytes of a clip number, most significant digit first.
local function bcd_number(range)
    local b1, b2 = range(0, 1):uint(), range(1, 1):uint()
    local d = { rshift(b1, 4), band(b1, 15), rshift(b2, 4), band(b2, 15) }
    return d[1] * 1000 + d[2] * 100 + d[3] * 10 + d[4], d[1] > 9 or d[2] > 9 or d[3] > 9 or d[4] > 9
end

-- An ID field: eight characters padded with spaces (Odetics, Louth) or zero bytes (file names).
local function padded_text(range)
    local s = range:raw()
    s = s:gsub("[%z ]+$", "")
    return (s:gsub("[^\32-\126]", "."))
end

-- The NAK bits by name; bits 1 and 3 have none.
local function nak_names(value)
    local names = {}
    for _, bit in ipairs(nak_bits) do
        if band(value, bit[1]) ~= 0 then names[#names + 1] = bit[2] end
    end
    local rest = band(value, 0x0A)
    if rest ~= 0 then names[#names + 1] = string.format("bits 0x%02X", rest) end
    return table.concat(names, ", ")
end

-- The helpers of the argument decoders of one protocol ("s9p" or "louth"): a warning, a check of
-- the data's length against the lengths a command takes, timecodes and IDs in its fields.
local function argument_helpers(p)
    local h = {}
    function h.warning(t, text)
        t:add_proto_expert_info(E["vlm." .. p .. ".args"], text)
    end
    function h.fits(t, n, ...)
        for _, want in ipairs({ ... }) do
            if n == want then return true end
        end
        h.warning(t, string.format("%d data bytes; the command takes %s", n,
            table.concat({ ... }, " or ")))
        return false
    end
    function h.tc(t, range)
        local text, _, bad = bcd_timecode(range)
        local item = t:add(F[p .. "_tc"], range, text)
        item:add(F[p .. "_drop"], range(0, 1))
        if bad then item:add_proto_expert_info(E["vlm." .. p .. ".bcd"]) end
        return text
    end
    function h.id(t, range)
        local text = padded_text(range)
        t:add(F[p .. "_id"], range, text)
        return text
    end
    return h
end

-- Requests and their answers. Answers follow their request on the same conversation (nothing
-- else ties them: the protocols carry no sequence numbers). Worked out on the first pass, kept
-- for later ones by PDU id.
local function new_links()
    return { pending = {}, pdus = {} }
end

local function link_request(links, pinfo, conversation, id, what)
    if not pinfo.visited then
        local record = { frame = pinfo.number, time = pinfo.abs_ts, what = what }
        links.pending[conversation] = record
        links.pdus[id] = record
    end
    return links.pdus[id] or {}
end

local function link_answer(links, pinfo, conversation, id)
    if not pinfo.visited then
        local request = links.pending[conversation]
        links.pending[conversation] = nil
        local record = { request = request }
        if request then
            request.answer_frame = pinfo.number
            record.delta = pinfo.abs_ts - request.time
        end
        links.pdus[id] = record
    end
    return links.pdus[id] or {}
end

local function add_link_items(tree, record, p)
    if record.request then
        tree:add(F[p .. "_request_in"], record.request.frame):set_generated()
        if record.delta then
            local secs = math.floor(record.delta)
            tree:add(F[p .. "_time"], NSTime.new(secs, math.floor((record.delta - secs) * 1e9)))
                :set_generated()
        end
    end
    if record.answer_frame then
        tree:add(F[p .. "_answer_in"], record.answer_frame):set_generated()
    end
end

local function endpoint(address, port)
    return tostring(address) .. ":" .. tostring(port)
end

-- The two ends of a packet's conversation, in an order that does not depend on its direction.
local function conversation_key(pinfo, prefix)
    local a, b = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
    if a > b then a, b = b, a end
    return prefix .. a .. "-" .. b
end

------------------------------------------------------------------ Sony 9-pin frames

-- One table of every Sony-family command: plain Sony 9-pin, the Odetics extensions and the
-- server's own media commands. A row is found by CMD1 (a number for one data count, "4x" for any
-- count of the group), CMD2 and, where it tells commands apart, the first data byte. `args`
-- decodes the command's data; `answer` the data of the answer to it. The rows are made by the
-- build from tools/common/command_names.txt, as devsim's are: a command has the name devsim's
-- log gives it.
local catalogue = { exact = {}, group = {} }
local function C(cmd1, cmd2, selector, name, args, answer)
    local key = cmd2 * 512 + (selector and selector + 1 or 0)
    local row = { name = name, args = args, answer = answer }
    if type(cmd1) == "string" then
        catalogue.group[tonumber(cmd1:sub(1, 1), 16) * 131072 + key] = row
    else
        catalogue.exact[cmd1 * 131072 + key] = row
    end
end

local function lookup(cmd1, cmd2, data0)
    local function find(t, c)
        local base = c * 131072 + cmd2 * 512
        return (data0 and t[base + data0 + 1]) or t[base]
    end
    return find(catalogue.exact, cmd1) or find(catalogue.group, rshift(cmd1, 4))
end

-- @SONY_COMMANDS@
-- The build fills the rows in: this file alone is no dissector.
assert(next(catalogue.exact), "no command names: load the vlm.lua the build makes from vlm.in.lua")

-- The answer's row when its request is not known: the sense (group 6 for group 7, group A for
-- group 8) with the same CMD2, named for its data.
local function sense_for_answer(group, cmd2, data0)
    local requests = group == 0x7 and { 0x60, 0x61, 0x62, 0x69 } or group == 0x8 and
        { 0xA0, 0xA8 } or {}
    for _, cmd1 in ipairs(requests) do
        local row = lookup(cmd1, cmd2, data0)
        if row then return row end
    end
end

local function answer_name(request_name)
    return (request_name:gsub(" SENSE$", " DATA"):gsub(" REQUEST$", ""))
end

local S = argument_helpers("s9p")
local args_warning, fits, s9p_tc, s9p_id = S.warning, S.fits, S.tc, S.id

local function s9p_clip(t, range)
    local number, bad = bcd_number(range)
    local item = t:add(F.s9p_clip, range, number)
    if bad then item:add_proto_expert_info(E["vlm.s9p.bcd"]) end
    return tostring(number)
end

-- The decoders of a frame's data: each gets the tree, the data (a TvbRange, nil when there is
-- none) and its length, adds its fields and returns what the Info column shows, if anything.
local sony_args = {}
function sony_args.hex(t, d, n)
    if n > 0 then return hex(d) end
end
function sony_args.speed(t, d, n)
    if not fits(t, n, 1) then return end
    local N = d(0, 1):uint()
    local rate = 10 ^ (N / 32 - 2)
    t:add(F.s9p_speed, d(0, 1))
    t:add(F.s9p_rate, d(0, 1), rate):set_generated()
    return string.format("speed %d (%.3g x play)", N, rate)
end
function sony_args.steps(t, d, n)
    if n == 0 then return end -- one frame
    if not fits(t, n, 1) then return end
    t:add(F.s9p_steps, d(0, 1))
    return tostring(d(0, 1):uint())
end
function sony_args.tc(t, d, n)
    if fits(t, n, 4) then return s9p_tc(t, d) end
end
-- A timecode, then four bytes of user bits.
function sony_args.tc_ub(t, d, n)
    if not fits(t, n, 8) then return end
    t:add(F.s9p_user_bits, d(4, 4))
    return s9p_tc(t, d(0, 4)) .. " user bits " .. hex(d(4, 4))
end
function sony_args.tc2(t, d, n)
    if fits(t, n, 8) then return s9p_tc(t, d(0, 4)) .. " " .. s9p_tc(t, d(4, 4)) end
end
function sony_args.tc_or_none(t, d, n)
    if n == 0 then return end
    return sony_args.tc(t, d, n)
end
-- The preset forms: nothing, a timecode, an ID, or a timecode then an ID.
function sony_args.tc_id(t, d, n)
    if n == 0 or not fits(t, n, 4, 8, 12) then return end
    if n == 4 then return s9p_tc(t, d) end
    if n == 8 then return s9p_id(t, d) end
    return s9p_tc(t, d(0, 4)) .. " " .. s9p_id(t, d(4, 8))
end
function sony_args.id(t, d, n)
    if fits(t, n, 8) then return s9p_id(t, d) end
end
function sony_args.selector_id(t, d, n)
    if n < 1 then return args_warning(t, "no selector") end
    t:add(F.s9p_selector, d(0, 1))
    if n > 1 then return s9p_id(t, d(1, math.min(n - 1, 8))) end
end
function sony_args.field(t, d, n)
    if not fits(t, n, 4) then return end
    t:add(F.s9p_field, d(0, 4))
    return tostring(d(0, 4):uint())
end
function sony_args.clip(t, d, n)
    if fits(t, n, 2) then return s9p_clip(t, d) end
end
function sony_args.clips(t, d, n)
    if fits(t, n, 4) then return s9p_clip(t, d(0, 2)) .. " " .. s9p_clip(t, d(2, 2)) end
end
function sony_args.clip_save(t, d, n)
    if not fits(t, n, 10) then return end
    t:add(F.s9p_value, d(2, 4))
    t:add(F.s9p_value, d(6, 4))
    return "clip " .. s9p_clip(t, d(0, 2))
end
function sony_args.clip_parameters(t, d, n)
    if not fits(t, n, 12) then return end
    t:add(F.s9p_value, d(0, 4))
    t:add(F.s9p_value, d(4, 4))
    return "clips " .. s9p_clip(t, d(8, 2)) .. " " .. s9p_clip(t, d(10, 2))
end
function sony_args.value(t, d, n)
    if not fits(t, n, 1) then return end
    t:add(F.s9p_value, d(0, 1))
    return tostring(d(0, 1):uint())
end
function sony_args.flag(t, d, n)
    if not fits(t, n, 1) then return end
    t:add(F.s9p_value, d(0, 1))
    return d(0, 1):uint() ~= 0 and "on" or "off"
end
function sony_args.selector(t, d, n)
    if not fits(t, n, 1) then return end
    t:add(F.s9p_selector, d(0, 1))
end
-- The current time sense's sources, one a bit: "LTC+VITC".
local time_sources = { "LTC", "VITC", "TIMER-1", "TIMER-2", "LTC UB", "VITC UB" }
function sony_args.time_select(t, d, n)
    if not fits(t, n, 1) then return end
    local names = {}
    for i, source in ipairs(time_sources) do
        if band(d(0, 1):uint(), 2 ^ (i - 1)) ~= 0 then names[#names + 1] = source end
    end
    t:add(F.s9p_selector, d(0, 1))
    if #names == 0 then return hex(d) end
    local text = table.concat(names, "+")
    t:add(F.s9p_sources, d(0, 1), text)
    return text
end
function sony_args.selector_value(t, d, n)
    if not fits(t, n, 2) then return end
    t:add(F.s9p_selector, d(0, 1))
    t:add(F.s9p_value, d(1, 1))
    return tostring(d(1, 1):uint())
end
function sony_args.file(t, d, n)
    if not fits(t, n, 1, 9) then return end
    t:add(F.s9p_selector, d(0, 1))
    if n == 9 then
        local name = padded_text(d(1, 8))
        t:add(F.s9p_file, d(1, 8), name)
        return name
    end
end
function sony_args.status_range(t, d, n)
    if not fits(t, n, 1) then return end
    t:add(F.s9p_first, d(0, 1))
    t:add(F.s9p_nstatus, d(0, 1))
end
function sony_args.status(t, d, n)
    if n > 0 then
        t:add(F.s9p_status, d)
        return hex(d)
    end
end
function sony_args.section(t, d, n)
    if not fits(t, n, 1) then return end
    t:add(F.s9p_section, d(0, 1))
    return tostring(d(0, 1):uint())
end
function sony_args.section_bytes(t, d, n)
    if n < 1 then return args_warning(t, "no menu section") end
    t:add(F.s9p_section, d(0, 1))
    return tostring(d(0, 1):uint())
end
function sony_args.gpi(t, d, n)
    if not fits(t, n, 3) then return end
    t:add(F.s9p_selector, d(0, 1))
    t:add(F.s9p_transitions, d(1, 1))
    t:add(F.s9p_levels, d(2, 1))
    return string.format("transitions %02X levels %02X", d(1, 1):uint(), d(2, 1):uint())
end
function sony_args.text(t, d, n)
    if n == 0 then return end
    local text = padded_text(d)
    t:add(F.s9p_text, d, text)
    return '"' .. text .. '"'
end
function sony_args.ip(t, d, n)
    if not fits(t, n, 4) then return end
    t:add(F.s9p_ip, d)
    return tostring(d:ipv4())
end
function sony_args.nak(t, d, n)
    if n < 1 then
        args_warning(t, "a NAK carries one byte of error bits")
        return
    end
    local bits = d(0, 1)
    local item = t:add(F.s9p_nak, bits)
    for _, f in ipairs({ F.s9p_nak_unknown, F.s9p_nak_checksum, F.s9p_nak_parity,
        F.s9p_nak_overrun, F.s9p_nak_framing, F.s9p_nak_timeout }) do
        item:add(f, bits)
    end
    local names = nak_names(bits:uint())
    item:append_text(" (" .. names .. ")")
    t:add_proto_expert_info(E["vlm.s9p.nak_received"], "NAK: " .. names)
    return names
end

local sony_links = new_links()
local FROM_DEVICE = { [0x1] = true, [0x7] = true, [0x8] = true, [0x9] = true }

-- One Sony frame, CMD1 to checksum, in `range` (nil when there are no bytes at all). Requests and
-- answers are paired within `conversation`.
local function dissect_s9p(range, pinfo, tree, conversation, tunnelled)
    local n = range and range:len() or 0
    local t = range and tree:add(p_s9p, range) or tree:add(p_s9p)
    pinfo.cols.protocol:set("VLM Sony")
    if tunnelled then t:add(F.s9p_tunnel, true):set_generated() end
    if n < 3 then
        t:add_proto_expert_info(E["vlm.s9p.malformed"], string.format(
            "%d bytes: a frame has at least CMD1, CMD2 and its checksum", n))
        info(pinfo, "VLM Sony", "malformed Sony frame")
        return
    end
    local cmd1, cmd2 = range(0, 1):uint(), range(1, 1):uint()
    local group, count, data_len = rshift(cmd1, 4), band(cmd1, 0x0F), n - 3
    local from_device = FROM_DEVICE[group] or false
    t:add(F.s9p_direction, from_device and 2 or 1):set_generated()
    local c1 = t:add(F.s9p_cmd1, range(0, 1))
    c1:add(F.s9p_group, range(0, 1))
    c1:add(F.s9p_count, range(0, 1))
    t:add(F.s9p_cmd2, range(1, 1))
    local data = data_len > 0 and range(2, data_len) or nil
    local data0 = data and data(0, 1):uint() or nil
    if count ~= data_len then
        t:add_proto_expert_info(E["vlm.s9p.malformed"], string.format(
            "CMD1 announces %d data bytes, the frame holds %d", count, data_len))
    end

    local id = pdu_id(pinfo, "s9p")
    local record
    if from_device then
        record = link_answer(sony_links, pinfo, conversation, id)
    else
        record = link_request(sony_links, pinfo, conversation, id,
            { cmd1 = cmd1, cmd2 = cmd2, data0 = data0 })
    end

    local row = lookup(cmd1, cmd2, data0)
    local name, args
    if from_device and group ~= 0x1 then
        local asked = record.request and record.request.what
        local request = asked and lookup(asked.cmd1, asked.cmd2, asked.data0) or
            sense_for_answer(group, cmd2, data0)
        if row then -- an answer of its own form: its row decodes it (timecode, user bits ...)
            name, args = row.name, row.args
        elseif request then
            name, args = answer_name(request.name), request.answer or "hex"
        end
    elseif row then
        name, args = row.name, row.args
    end
    if not name then
        name, args = string.format("%02X %02X", cmd1, cmd2), "hex"
        t:add_proto_expert_info(E["vlm.s9p.unknown"])
    end
    t:add(F.s9p_name, range(0, 2), name)
    t:set_text(string.format("Sony 9-pin %s: %s", from_device and "answer" or "command", name))
    local summary
    if data then
        t:add(F.s9p_data, data)
        if args then
            summary = sony_args[args](t, data, data_len)
        else
            args_warning(t, string.format("%d data bytes; the command takes none", data_len))
        end
    elseif args then
        summary = sony_args[args](t, nil, 0)
    end

    local sum = 0
    for i = 0, n - 2 do sum = sum + range(i, 1):uint() end
    sum = band(sum, 0xFF)
    local checksum = range(n - 1, 1)
    local cs = t:add(F.s9p_checksum, checksum)
    t:add(F.s9p_checksum_status, checksum, sum == checksum:uint() and 1 or 0):set_generated()
    if sum ~= checksum:uint() then
        cs:append_text(string.format(" [wrong: 0x%02X expected]", sum))
        cs:add_proto_expert_info(E["vlm.s9p.checksum_bad"], string.format(
            "Wrong checksum 0x%02X: the bytes before it sum to 0x%02X", checksum:uint(), sum))
    end
    add_link_items(t, record, "s9p")
    info(pinfo, "VLM Sony", summary and (name .. " " .. summary) or name)
end

------------------------------------------------------------------ Louth frames

-- Louth (VDCP) commands by command type (CMD1's high nibble) and CMD2, and the answer frames
-- (CMD2 with bit 7 set) of those answered by one; the public names, made by the build from
-- tools/common/command_names.txt as devsim's are.
local louth_catalogue = {}
local function L(kind, cmd2, name, args)
    louth_catalogue[kind * 256 + cmd2] = { name = name, args = args }
end
-- @LOUTH_COMMANDS@

local LH = argument_helpers("louth")
local louth_warning, louth_fits, louth_tc, louth_id = LH.warning, LH.fits, LH.tc, LH.id
-- A port byte: bit 7 marks a negative port, whose magnitude is in the other bits.
local function louth_port(t, range)
    local b = range:uint()
    local port = band(b, 0x80) ~= 0 and -band(b, 0x7F) or b
    t:add(F.louth_port, range, port)
    return tostring(port)
end

local louth_args = {}
function louth_args.hex(t, d, n)
    if n > 0 then return hex(d) end
end
function louth_args.jog(t, d, n)
    if not louth_fits(t, n, 1, 4) then return end
    local frames = n == 1 and d(0, 1):int() or d(0, 4):int()
    t:add(F.louth_frames, d, frames)
    return tostring(frames)
end
-- Whole part (signed), then the rest of the hundredths scaled by 5/2, then a zero byte.
function louth_args.var(t, d, n)
    if not louth_fits(t, n, 3) then return end
    local whole = d(0, 1):int()
    local fraction = whole < 0 and d(1, 1):int() or d(1, 1):uint()
    local hundredths = whole * 100 + math.floor(fraction * 2 / 5 + 0.5)
    t:add(F.louth_speed, d(0, 2), hundredths)
    return string.format("%.2f x play", hundredths / 100)
end
function louth_args.mode(t, d, n)
    if not louth_fits(t, n, 1) then return end
    t:add(F.louth_mode, d(0, 1))
    return string.format("0x%02X", d(0, 1):uint())
end
function louth_args.port(t, d, n)
    if louth_fits(t, n, 1) then return "port " .. louth_port(t, d(0, 1)) end
end
function louth_args.open_port(t, d, n)
    if not louth_fits(t, n, 2) then return end
    t:add(F.louth_lock, d(1, 1))
    return "port " .. louth_port(t, d(0, 1)) .. (d(1, 1):uint() ~= 0 and " locked" or "")
end
function louth_args.id(t, d, n)
    if louth_fits(t, n, 8) then return louth_id(t, d) end
end
function louth_args.id_tcs(t, d, n)
    if not louth_fits(t, n, 8, 16) then return end
    local text = louth_id(t, d(0, 8))
    if n == 16 then
        text = text .. " " .. louth_tc(t, d(8, 4)) .. " " .. louth_tc(t, d(12, 4))
    end
    return text
end
function louth_args.what(t, d, n)
    if not louth_fits(t, n, 1) then return end
    t:add(F.louth_what, d(0, 1))
end
function louth_args.granted(t, d, n)
    if not louth_fits(t, n, 1) then return end
    t:add(F.louth_granted, d(0, 1))
    return d(0, 1):uint() == 1 and "granted" or "not granted"
end
-- An ID list answer: every data byte is the ID; fewer than three mean the list has ended.
function louth_args.id_list(t, d, n)
    if n < 3 then return "none" end
    return louth_id(t, d)
end
function louth_args.status(t, d, n)
    if n < 1 then return louth_warning(t, "no data") end
    t:add(F.louth_what, d(0, 1))
    if n > 1 then
        t:add(F.louth_status, d(1, n - 1))
        return hex(d(1, n - 1))
    end
end
function louth_args.position(t, d, n)
    if not louth_fits(t, n, 5) then return end
    t:add(F.louth_what, d(0, 1))
    return louth_tc(t, d(1, 4))
end
function louth_args.active_id(t, d, n)
    if n < 1 then return louth_warning(t, "no data") end
    t:add(F.louth_what, d(0, 1))
    if n > 1 then return louth_id(t, d(1, n - 1)) end
    return "none"
end
function louth_args.tc(t, d, n)
    if louth_fits(t, n, 4) then return louth_tc(t, d) end
end
-- The IDs stored (two bytes), then the storage left as a timecode.
function louth_args.system_status(t, d, n)
    if not louth_fits(t, n, 6) then return end
    t:add(F.louth_ids, d(0, 2))
    local ids = d(0, 2):uint()
    return string.format("%d ID%s, %s left", ids, ids == 1 and "" or "s", louth_tc(t, d(2, 4)))
end
-- Whether the ID asked for is stored: 1 or 0.
function louth_args.found(t, d, n)
    if not louth_fits(t, n, 1) then return end
    t:add(F.louth_found, d(0, 1))
    return d(0, 1):uint() == 1 and "stored" or "not stored"
end

local louth_links = new_links()

-- The length of the Louth PDU that starts with `first` (and, for a frame, whose byte count is
-- `count`), as a serial line carries them back to back.
local function louth_pdu_length(first, count)
    if first == 0x04 then return 1 end
    if first == 0x05 then return 2 end
    if first == 0x02 then return count and count + 3 or nil end
end

-- One Louth frame, acknowledge or refusal in `range` (nil when there are no bytes).
local function dissect_louth(range, pinfo, tree, conversation)
    local n = range and range:len() or 0
    local t = range and tree:add(p_louth, range) or tree:add(p_louth)
    local function bad(text)
        t:add_proto_expert_info(E["vlm.louth.malformed"], text)
        info(pinfo, "VLM Louth", "malformed Louth frame")
    end
    if n == 0 then return bad("no bytes") end
    local first = range(0, 1):uint()
    local id = pdu_id(pinfo, "louth")
    if first == 0x04 or first == 0x05 then
        t:add(F.louth_direction, 2):set_generated()
        add_link_items(t, link_answer(louth_links, pinfo, conversation, id), "louth")
        if first == 0x04 then
            t:add(F.louth_ack, range(0, 1))
            t:set_text("Louth answer: ACK")
            if n ~= 1 then return bad(string.format("an acknowledge is 1 byte, not %d", n)) end
            return info(pinfo, "VLM Louth", "ACK")
        end
        if n < 2 then return bad("a refusal without its error byte") end
        local byte = range(1, 1)
        local item = t:add(F.louth_nak, byte)
        local names = nak_names(byte:uint())
        item:append_text(" (" .. names .. ")")
        t:add_proto_expert_info(E["vlm.louth.refused"], "Refused: " .. names)
        t:set_text("Louth answer: NAK " .. names)
        if n ~= 2 then return bad(string.format("a refusal is 2 bytes, not %d", n)) end
        return info(pinfo, "VLM Louth", "NAK " .. names)
    end
    if first ~= 0x02 then
        return bad(string.format(
            "first byte 0x%02X: neither a frame (02), an acknowledge (04) nor a refusal (05)", first))
    end
    t:add(F.louth_start, range(0, 1))
    if n < 2 then return bad("a frame without its byte count") end
    local count = range(1, 1):uint()
    t:add(F.louth_count, range(1, 1))
    if count + 3 ~= n then
        t:add_proto_expert_info(E["vlm.louth.malformed"], string.format(
            "the byte count announces a frame of %d bytes; %d are there", count + 3, n))
    end
    if n < 5 then return bad("a frame without CMD1, CMD2 and checksum") end
    local cmd1, cmd2 = range(2, 1):uint(), range(3, 1):uint()
    local c1 = t:add(F.louth_cmd1, range(2, 1))
    c1:add(F.louth_type, range(2, 1))
    c1:add(F.louth_unit, range(2, 1))
    local c2 = t:add(F.louth_cmd2, range(3, 1))
    c2:add(F.louth_is_answer, range(3, 1))
    local answer = band(cmd2, 0x80) ~= 0
    t:add(F.louth_direction, answer and 2 or 1):set_generated()

    local record
    if answer then
        record = link_answer(louth_links, pinfo, conversation, id)
    else
        record = link_request(louth_links, pinfo, conversation, id, cmd1)
    end

    local data_len = n - 5
    local data = data_len > 0 and range(4, data_len) or nil
    if data then t:add(F.louth_data, data) end
    local row = louth_catalogue[rshift(cmd1, 4) * 256 + cmd2]
    local request = answer and louth_catalogue[rshift(cmd1, 4) * 256 + band(cmd2, 0x7F)]
    local name, args
    if not row and request then -- an answer with no form of its own
        name, args = request.name .. " ANSWER", "hex"
    elseif row then
        name, args = row.name, row.args
        if cmd2 == 0x23 and data_len == 16 then name = "RECORD INIT WITH DATA" end
    else
        name, args = string.format("%02X %02X", cmd1, cmd2), "hex"
        t:add_proto_expert_info(E["vlm.louth.unknown"])
    end
    t:add(F.louth_name, range(2, 2), name)
    t:set_text(string.format("Louth %s: %s, unit %d", answer and "answer" or "command", name,
        band(cmd1, 0x0F)))
    local summary
    if args then
        summary = louth_args[args](t, data, data_len)
    elseif data then
        louth_warning(t, string.format("%d data bytes; the command takes none", data_len))
    end
    local sum = 0
    for i = 2, n - 2 do sum = sum + range(i, 1):uint() end
    local expected = band(256 - band(sum, 0xFF), 0xFF)
    local checksum = range(n - 1, 1)
    local cs = t:add(F.louth_checksum, checksum)
    t:add(F.louth_checksum_status, checksum, expected == checksum:uint() and 1 or 0)
        :set_generated()
    if expected ~= checksum:uint() then
        cs:append_text(string.format(" [wrong: 0x%02X expected]", expected))
        cs:add_proto_expert_info(E["vlm.louth.checksum_bad"], string.format(
            "Wrong checksum 0x%02X, 0x%02X expected", checksum:uint(), expected))
    end

    add_link_items(t, record, "louth")
    info(pinfo, "VLM Louth", summary and (name .. " " .. summary) or name)
end

------------------------------------------------------------------ management protocol

local mgmt_links = new_links()
local first_speakers = {} -- conversation → the endpoint that spoke first: the controller
local mgmt_requests = { [0] = "PUT DISK INFORMATION", [1] = "GET DISK INFORMATION",
    [2] = "GET LOG" }
local mgmt_answers = { [1] = "DISK INFORMATION", [2] = "LOG" }

-- Whether a datagram comes from the device: the link says so when it is recorded; on the
-- network, whoever spoke first in the conversation is the controller.
local function sent_by_device(pinfo, conversation, from_device)
    if from_device ~= nil then return from_device end
    local sender = endpoint(pinfo.src, pinfo.src_port)
    if not pinfo.visited and first_speakers[conversation] == nil then
        first_speakers[conversation] = sender
    end
    return first_speakers[conversation] ~= sender
end

-- A management datagram, header included (at least 10 bytes).
local function dissect_mgmt(range, pinfo, tree, conversation, from_device)
    local n = range:len()
    local t = tree:add(p_mgmt, range)
    local size, code = range(2, 2):uint(), range(4, 2):uint()
    local carried = n - 10
    local answer = sent_by_device(pinfo, conversation, from_device)
    local id = pdu_id(pinfo, "mgmt")
    t:add(F.mgmt_kind, answer and 2 or 1):set_generated()
    t:add(F.mgmt_size, range(2, 2))
    local function code_item(c)
        t:add(c <= 2 and F.mgmt_code or F.mgmt_picture, range(4, 2))
    end
    local function size_check()
        if size > carried then
            t:add_proto_expert_info(E["vlm.mgmt.malformed"], string.format(
                "the size announces %d data bytes; the datagram carries %d", size, carried))
        end
    end
    local name, shown
    if not answer then
        add_link_items(t, link_request(mgmt_links, pinfo, conversation, id, code), "mgmt")
        code_item(code)
        name = mgmt_requests[code] or ("GET PICTURE " .. code)
        size_check()
        shown = code == 0 and math.min(size, carried) or 0
    else
        local record = link_answer(mgmt_links, pinfo, conversation, id)
        add_link_items(t, record, "mgmt")
        local asked = record.request and record.request.what or code
        if asked == 0 then
            local accepted = code == 0
            t:add(F.mgmt_accepted, range(4, 2), accepted)
            name = accepted and "UPLOAD ACCEPTED" or "UPLOAD REFUSED"
            if not accepted then t:add_proto_expert_info(E["vlm.mgmt.refused"]) end
            shown = 0
        else
            code_item(code)
            name = mgmt_answers[asked] or ("PICTURE " .. asked)
            if mgmt_answers[asked] then -- a picture's length is the datagram's
                size_check()
                shown = math.min(size, carried)
            else
                shown = carried
            end
        end
    end
    local summary
    if shown > 0 then
        local data = range(10, shown)
        t:add(F.mgmt_data, data)
        if answer and name == "LOG" then t:add(F.mgmt_log, data, data:string()) end
        summary = shown .. " bytes"
    end
    if summary or answer then
        t:add(F.mgmt_data_len, shown):set_generated()
    end
    t:set_text(string.format("Management %s: %s", answer and "answer" or "request", name))
    info(pinfo, "VLM Mgmt", summary and (name .. " " .. summary) or name)
end

------------------------------------------------------------------ datagram header

-- One datagram behind the 10-byte header: Sony (type 1), Louth (5) or management (3).
-- `from_device` is known on a recorded link, nil on the network.
local function dissect_dgram(tvb, pinfo, tree, conversation, from_device)
    local n = tvb:len()
    local t = tree:add(p_dgram, tvb(0, math.min(n, 10)))
    if n < 10 then
        t:add_proto_expert_info(E["vlm.dgram.malformed"], string.format(
            "%d bytes: shorter than the 10-byte header", n))
        return info(pinfo, "VLM", "malformed datagram")
    end
    t:add(F.dgram_type, tvb(0, 2))
    t:add(F.dgram_size, tvb(2, 2))
    t:add(F.dgram_msgtype, tvb(4, 2))
    t:add(F.dgram_seqid, tvb(6, 2))
    t:add(F.dgram_seqnum, tvb(8, 2))
    local kind, size = tvb(0, 2):uint(), tvb(2, 2):uint()
    local carried = n - 10
    if kind == 3 then return dissect_mgmt(tvb(0, n), pinfo, tree, conversation, from_device) end
    if kind ~= 1 and kind ~= 5 then
        t:add_proto_expert_info(E["vlm.dgram.unknown"], string.format("Type %d", kind))
        if carried > 0 then t:add(F.dgram_data, tvb(10, carried)) end
        return info(pinfo, "VLM", string.format("datagram of type %d", kind))
    end
    if size ~= carried then
        t:add_proto_expert_info(E["vlm.dgram.malformed"], string.format(
            "the size announces %d frame bytes; the datagram carries %d", size, carried))
    end
    -- The receiver takes the low byte of the size as the frame's length.
    local take = math.min(band(size, 0xFF), carried)
    local frame = take > 0 and tvb(10, take) or nil
    if kind == 1 then
        dissect_s9p(frame, pinfo, tree, conversation, false)
    else
        dissect_louth(frame, pinfo, tree, conversation)
    end
end

-- The header as the library and the server send it: type 1 or 5 with exactly the frame's bytes,
-- or type 3 with at most its data, and zero sequence words.
local function looks_like_dgram(tvb)
    local n = tvb:len()
    if n < 10 or tvb(6, 4):uint() ~= 0 then return false end
    local kind, size = tvb(0, 2):uint(), tvb(2, 2):uint()
    if kind == 1 then return tvb(4, 2):uint() == 0 and size == n - 10 and size >= 3 and size <= 18 end
    if kind == 5 then
        local first = n > 10 and tvb(10, 1):uint()
        return tvb(4, 2):uint() == 0 and size == n - 10 and
            (first == 0x02 or first == 0x04 or first == 0x05)
    end
    return kind == 3 and size <= n - 10
end

------------------------------------------------------------------ GPI/GPO events

local edges = { [0] = "falling", [1] = "rising", [2] = "both" }

function p_gpio.dissector(tvb, pinfo, tree)
    local n = tvb:len()
    local t = tree:add(p_gpio, tvb())
    local flow = pinfo.dst_port
    if flow ~= GPI_PORT and flow ~= GPO_PORT and flow ~= NET_PORT then flow = pinfo.src_port end
    t:add(F.gpio_flow, flow):set_generated()
    if n ~= 8 then
        t:add_proto_expert_info(E["vlm.gpio.malformed"], string.format(
            "%d bytes: an event is 8 bytes", n))
        info(pinfo, "VLM GPIO", "malformed event")
        return n
    end
    local line, status = tvb(0, 4):int(), tvb(4, 4):int()
    t:add(F.gpio_line, tvb(0, 4))
    local s = t:add(F.gpio_status, tvb(4, 4))
    local text
    if flow == GPI_PORT then
        local edge = edges[status]
        if edge then
            t:add(F.gpio_edge, tvb(4, 4), edge):set_generated()
        else
            s:add_proto_expert_info(E["vlm.gpio.range"], "a GPI event's status is 0, 1 or 2")
        end
        if line < 0 or line > 7 then
            t:add_proto_expert_info(E["vlm.gpio.range"], "GPI lines are 0 to 7")
        end
        text = string.format("GPI %d %s", line, edge or ("status " .. status))
    else
        local what = flow == GPO_PORT and "GPO" or "GPO (network)"
        if line == 255 then
            t:add(F.gpio_levels, tvb(7, 1))
            text = string.format("%s all lines 0x%02X", what, band(status, 0xFF))
        else
            if line < 0 or line > 7 then
                t:add_proto_expert_info(E["vlm.gpio.range"], "GPO lines are 0 to 7, or 255 for all")
            end
            text = string.format("%s %d %s", what, line, status ~= 0 and "set" or "clear")
        end
    end
    t:set_text("VLM GPI/GPO event: " .. text)
    info(pinfo, "VLM GPIO", text)
    return n
end

function p_dgram.dissector(tvb, pinfo, tree)
    dissect_dgram(tvb, pinfo, tree, conversation_key(pinfo, "udp:"), nil)
    return tvb:len()
end

------------------------------------------------------------------ connection protocol

-- The twelve-byte messages: tag, then two big-endian 32-bit arguments. `bulk` names what the
-- size an answer announces is the size of, sent as raw bytes after a "data" request.
local TAGS = {
    ["ver "] = { name = "VERSION", request = true, answer = true },
    ["s9p "] = { name = "SONY FRAME", request = true, answer = true },
    ["gfif"] = { name = "DISK INFORMATION", request = true, answer = true,
        bulk = "disk information", arg1 = "capacity" },
    ["uuuu"] = { name = "FILE ENTRY", request = true, answer = true, bulk = "file entry",
        arg1 = "entry" },
    ["data"] = { name = "DATA REQUEST", request = true },
    ["ggop"] = { name = "GOP (OLDER FORM)", request = true },
    ["cggp"] = { name = "GOP", request = true, answer = true, bulk = "GOP" },
    ["pgop"] = { name = "GOP UPLOAD", request = true },
    ["aliv"] = { name = "KEEP-ALIVE", request = true },
    ["pgac"] = { name = "UPLOAD ACCEPTED", answer = true },
    ["pgna"] = { name = "UPLOAD REFUSED", answer = true },
}

-- Per conversation: who the controller is, the transfer under way in each direction (what, its
-- size when known, how much has gone), the last size announced, the size of an upload asked for.
local cnxn_conversations = {}
-- Per PDU: what its bytes were taken for on the first pass (a header, or which transfer).
local cnxn_plans = {}
local cnxn_links = new_links()

local function cnxn_conversation(key)
    local c = cnxn_conversations[key]
    if not c then
        c = {}
        cnxn_conversations[key] = c
    end
    return c
end

-- What a header means for the bytes that follow it, on the first pass.
local function cnxn_update(c, tag, arg1, arg2, from_server, frame)
    local known = TAGS[tag]
    if not known then return end
    if from_server then
        if known.bulk then c.announced = { size = arg1, what = known.bulk } end
        if tag == "pgac" and c.upload and c.upload > 0 then
            c.to_server = { what = "GOP upload", total = c.upload, offset = 0, request = frame }
        end
        return
    end
    if tag ~= "aliv" and tag ~= "data" and c.to_client and not c.to_client.total then
        c.to_client = nil -- a new request ends a transfer of unknown length
    end
    if tag == "data" then
        local a = c.announced
        c.to_client = (not a or a.size > 0) and
            { what = a and a.what or "a transfer not announced", total = a and a.size,
                offset = 0, request = frame } or nil
    elseif tag == "ggop" then
        c.to_client = { what = "GOP (older form)", offset = 0, request = frame }
    elseif tag == "pgop" then
        c.upload = arg2
    end
end

local function cnxn_bad(t, pinfo, text)
    t:add_proto_expert_info(E["vlm.cnxn.malformed"], text)
    info(pinfo, "VLM Cnxn", "malformed message")
end

-- One header (with the Sony frame it carries), cut to what is there.
local function dissect_cnxn_header(range, pinfo, tree, conversation, from_server)
    local n = range:len()
    local t = tree:add(p_cnxn, range)
    t:add(F.cnxn_direction, from_server and 2 or 1):set_generated()
    if n < 12 then
        return cnxn_bad(t, pinfo, string.format("cut after %d of its 12 header bytes", n))
    end
    local tag = range(0, 4):raw()
    local known = TAGS[tag]
    t:add(F.cnxn_tag, range(0, 4), (tag:gsub("[^\32-\126]", ".")))
    local a1 = t:add(F.cnxn_arg1, range(4, 4))
    t:add(F.cnxn_arg2, range(8, 4))
    if not known or (from_server and not known.answer) or (not from_server and not known.request) then
        return cnxn_bad(t, pinfo, string.format("tag \"%s\" is not %s of the connection protocol",
            (tag:gsub("[^\32-\126]", ".")), from_server and "an answer" or "a request"))
    end
    local id = pdu_id(pinfo, "cnxn_header")
    if from_server then
        add_link_items(t, link_answer(cnxn_links, pinfo, conversation, id), "cnxn")
    elseif tag ~= "aliv" then
        add_link_items(t, link_request(cnxn_links, pinfo, conversation, id, tag), "cnxn")
    end
    local arg1, arg2 = range(4, 4):uint(), range(8, 4):uint()
    local name, detail = known.name, nil
    if tag == "s9p " then
        local length = from_server and range(7, 1) or range(4, 4)
        t:add(F.cnxn_frame_len, length)
        t:set_text(string.format("Connection protocol: SONY FRAME, %d bytes", length:uint()))
        if length:uint() > 18 then
            return cnxn_bad(t, pinfo, string.format("a Sony frame of %d bytes: at most 18",
                length:uint()))
        end
        if n < 12 + length:uint() then
            return cnxn_bad(t, pinfo, string.format("the Sony frame is cut after %d of its %d bytes",
                n - 12, length:uint()))
        end
        local frame = length:uint() > 0 and range(12, length:uint()) or nil
        return dissect_s9p(frame, pinfo, tree, conversation, true)
    end
    if not from_server then
        if tag ~= "data" and tag ~= "aliv" and tag ~= "pgop" then name = name .. " REQUEST" end
        if known.arg1 then a1:append_text(" (" .. known.arg1 .. ")") end
        if tag == "uuuu" then detail = tostring(arg1) end
        if tag == "pgop" then
            t:add(F.cnxn_size, range(8, 4))
            detail = arg2 .. " bytes"
        end
    elseif known.bulk then
        t:add(F.cnxn_size, range(4, 4))
        detail = arg1 .. " bytes"
    elseif tag == "ver " then
        detail = string.format("%d.%d", arg1, arg2)
    elseif tag == "pgna" then
        t:add_proto_expert_info(E["vlm.cnxn.refused"])
    end
    t:add(F.cnxn_name, range(0, 4), name)
    t:set_text(string.format("Connection protocol %s: %s", from_server and "answer" or "request",
        name))
    info(pinfo, "VLM Cnxn", detail and (name .. " " .. detail) or name)
end

local function dissect_bulk(range, pinfo, tree, plan, from_server)
    local n = range:len()
    local t = tree:add(p_cnxn, range)
    t:add(F.cnxn_direction, from_server and 2 or 1):set_generated()
    t:add(F.cnxn_bulk, range)
    t:add(F.cnxn_bulk_len, n):set_generated()
    t:add(F.cnxn_bulk_of, plan.what):set_generated()
    t:add(F.cnxn_bulk_offset, plan.offset):set_generated()
    if plan.request then t:add(F.cnxn_request_in, plan.request):set_generated() end
    local whole = plan.offset == 0 and plan.total == n
    local text = string.format("bulk data %d bytes (%s%s)", n, plan.what, whole and "" or
        string.format(", from byte %d of %s", plan.offset, plan.total or "an unknown size"))
    t:set_text("Connection protocol: " .. text)
    info(pinfo, "VLM Cnxn", text)
end

-- The messages and raw bytes of one direction of a connection, as many as `tvb` holds. Over TCP
-- a message or a transfer cut at the segment's end is asked for whole (desegmentation); on a
-- recorded link a record holds whole messages, and a transfer may be spread over records.
local function cnxn_walk(tvb, pinfo, tree, conversation, from_server, can_desegment)
    local c = cnxn_conversation(conversation)
    local len, off = tvb:len(), 0
    local direction = from_server and "to_client" or "to_server"
    while off < len do
        local id = pdu_id(pinfo, "cnxn")
        local avail = len - off
        local plan = cnxn_plans[id]
        if not plan then
            local transfer = c[direction]
            plan = transfer and { what = transfer.what, total = transfer.total,
                offset = transfer.offset, request = transfer.request } or { header = true }
        end
        if not plan.header then
            local want = plan.total and plan.total - plan.offset
            if want and avail < want and can_desegment then
                pinfo.desegment_offset = off
                pinfo.desegment_len = want - avail
                return len
            end
            local take = want and math.min(want, avail) or avail
            if not cnxn_plans[id] and not pinfo.visited then
                cnxn_plans[id] = plan
                local transfer = c[direction]
                transfer.offset = transfer.offset + take
                if transfer.total and transfer.offset >= transfer.total then c[direction] = nil end
            end
            dissect_bulk(tvb(off, take), pinfo, tree, plan, from_server)
            off = off + take
        else
            local tag = avail >= 4 and tvb(off, 4):raw()
            local total = 12
            if tag == "s9p " and avail >= 12 then
                local length = from_server and tvb(off + 7, 1):uint() or tvb(off + 4, 4):uint()
                if length <= 18 then total = 12 + length end
            end
            if avail < total and can_desegment then
                pinfo.desegment_offset = off
                pinfo.desegment_len = total - avail
                return len
            end
            local take = math.min(total, avail)
            if not cnxn_plans[id] and not pinfo.visited then
                cnxn_plans[id] = plan
                if take == 12 or take == total then
                    cnxn_update(c, tag, tvb(off + 4, 4):uint(), tvb(off + 8, 4):uint(),
                        from_server, pinfo.number)
                end
            end
            dissect_cnxn_header(tvb(off, take), pinfo, tree, conversation, from_server)
            if not TAGS[tag] then return len end -- nothing after it can be told apart
            off = off + take
        end
    end
    return len
end

local function cnxn_tcp(tvb, pinfo, tree)
    local key = conversation_key(pinfo, "tcp:")
    local c = cnxn_conversation(key)
    if not c.controller and not pinfo.visited then
        local tag = tvb:len() >= 4 and tvb(0, 4):raw()
        local answer_only = tag == "pgac" or tag == "pgna"
        c.controller = answer_only and endpoint(pinfo.dst, pinfo.dst_port) or
            endpoint(pinfo.src, pinfo.src_port)
    end
    local from_server = c.controller ~= endpoint(pinfo.src, pinfo.src_port)
    return cnxn_walk(tvb, pinfo, tree, key, from_server, pinfo.can_desegment > 0)
end

function p_cnxn.dissector(tvb, pinfo, tree)
    return cnxn_tcp(tvb, pinfo, tree)
end

------------------------------------------------------------------ recorded links

-- A record of a recorded link (link type 147) starts with 16 bytes, big-endian:
--   0      version, 1
--   1      direction: 1 to the device (controller to server), 2 from the device
--   2      link: 1 datagram (UDP), 2 serial line, 3 stream (TCP connection protocol)
--   3      protocol: 0 for datagrams (their header says), 1 Sony 9-pin, 2 Louth (serial lines),
--          4 connection protocol (streams)
--   4-7    controller's IPv4 address   8-9   controller's port
--   10-13  device's IPv4 address       14-15 device's port, or the serial line's number
-- then the bytes: one whole datagram; whole messages or raw transfer bytes of a stream; whole
-- frames of a serial line, one after another.
local LINK_HEADER = 16

local function walk_serial(tvb, pinfo, tree, link_tree, conversation, protocol)
    local len, off = tvb:len(), 0
    while off < len do
        local first = tvb(off, 1):uint()
        local size
        if protocol == 1 then
            size = band(first, 0x0F) + 3
        else
            size = louth_pdu_length(first, len - off >= 2 and tvb(off + 1, 1):uint() or nil) or
                len - off
        end
        if off + size > len then
            link_tree:add_proto_expert_info(E["vlm.link.malformed"], string.format(
                "a frame of %d bytes cut at the record's end after %d", size, len - off))
            size = len - off
        end
        if protocol == 1 then
            dissect_s9p(tvb(off, size), pinfo, tree, conversation, false)
        else
            dissect_louth(tvb(off, size), pinfo, tree, conversation)
        end
        off = off + size
    end
end

function p_link.dissector(tvb, pinfo, tree)
    local n = tvb:len()
    local t = tree:add(p_link, tvb(0, math.min(n, LINK_HEADER)))
    local function bad(text)
        t:add_proto_expert_info(E["vlm.link.malformed"], text)
        info(pinfo, "VLM", "malformed record")
        return n
    end
    if n < LINK_HEADER then return bad(string.format("%d bytes: shorter than the 16-byte record header", n)) end
    t:add(F.link_version, tvb(0, 1))
    t:add(F.link_direction, tvb(1, 1))
    t:add(F.link_kind, tvb(2, 1))
    t:add(F.link_protocol, tvb(3, 1))
    local version, direction = tvb(0, 1):uint(), tvb(1, 1):uint()
    local kind, protocol = tvb(2, 1):uint(), tvb(3, 1):uint()
    if version ~= 1 then return bad(string.format("record header version %d, not 1", version)) end
    if direction ~= 1 and direction ~= 2 then
        return bad(string.format("direction %d: neither 1 nor 2", direction))
    end
    local from_device = direction == 2
    local controller, device
    if kind == 2 then
        t:add(F.link_line, tvb(14, 2))
        controller, device = "controller", "serial line " .. tvb(14, 2):uint()
    else
        t:add(F.link_controller, tvb(4, 4))
        t:add(F.link_controller_port, tvb(8, 2))
        t:add(F.link_device, tvb(10, 4))
        t:add(F.link_device_port, tvb(14, 2))
        controller = endpoint(tvb(4, 4):ipv4(), tvb(8, 2):uint())
        device = endpoint(tvb(10, 4):ipv4(), tvb(14, 2):uint())
    end
    pinfo.cols.src:set(from_device and device or controller)
    pinfo.cols.dst:set(from_device and controller or device)
    local conversation = "link:" .. kind .. ":" .. controller .. "-" .. device
    local payload = n > LINK_HEADER and tvb(LINK_HEADER):tvb() or nil
    if kind == 1 and protocol == 0 then
        if not payload then return bad("a datagram record without its datagram") end
        dissect_dgram(payload, pinfo, tree, conversation, from_device)
    elseif kind == 3 and protocol == 4 then
        if payload then cnxn_walk(payload, pinfo, tree, conversation, from_device, false) end
    elseif kind == 2 and (protocol == 1 or protocol == 2) then
        if not payload then return bad("a serial record without bytes") end
        walk_serial(payload, pinfo, tree, t, conversation, protocol)
    else
        return bad(string.format("link %d with protocol %d", kind, protocol))
    end
    return n
end

------------------------------------------------------------------ registration

local udp_ports = DissectorTable.get("udp.port")
udp_ports:add(CTRLD_PORT, p_dgram)
for _, port in ipairs({ GPI_PORT, GPO_PORT, NET_PORT }) do udp_ports:add(port, p_gpio) end
DissectorTable.get("tcp.port"):add_for_decode_as(p_cnxn)
DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, p_link)

-- Datagram headers and connection-protocol messages on any port: once one is recognised, the
-- rest of its conversation (the raw bytes of a transfer too) is ours.
p_dgram:register_heuristic("udp", function(tvb, pinfo, tree)
    if not looks_like_dgram(tvb) then return false end
    pinfo.conversation = p_dgram
    p_dgram.dissector(tvb, pinfo, tree)
    return true
end)
p_cnxn:register_heuristic("tcp", function(tvb, pinfo, tree)
    if tvb:len() < 12 then return false end
    local tag = tvb(0, 4):raw()
    if not TAGS[tag] or (tag == "s9p " and tvb(4, 4):uint() > 18) then return false end
    pinfo.conversation = p_cnxn
    cnxn_tcp(tvb, pinfo, tree)
    return true
end)
