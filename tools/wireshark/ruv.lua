-- Dissector for the RUV event transport: requests paired with their answers, every record body,
-- custom-field rows with the names of the catalogue that the capture holds.
--
-- Install: copy to the personal Lua plugin folder (Help, About, Folders), or name it on the
-- command line: tshark -X lua_script:ruv.lua. Streams are found by their magic; a capture that
-- misses the beginning can be helped with "Decode As", or -d tcp.port==PORT,ruv.
--
-- Nothing here reads beyond what was captured: every length is checked against captured_len().

local ruv = Proto("ruv", "RUV Event Transport")

local MAGIC = "\x55\xAA\x55\xAA\xCE\xFA\xED\xFE"
local OKAY = "OKAY\0\0\0\0"
local HEADER = 8
local LARGEST = 64 * 1024 * 1024 -- a longer unit is a lie or a slip, not worth waiting for

local TYPES = {[0] = "Request/Information", "Alert", "Flow", "Syslog", "Windows Events"}
local REQUESTS = {[0] = "NOP", "ReqSSL", "ReqDataVers", "GetChanID", "AmKnown", "CloseConn",
                  "GetRcvrVer", "GetCustomFieldFile", "AmKnown2"}
local KINDS = {"IPv4", "IPv6", "HostID"}
local CLOSE_CONN = 5

-- Bodies ------------------------------------------------------------------------------------

-- Kinds: B H I Q unsigned integers of 1, 2, 4 and 8 bytes; M a MAC address; A an IPv4 word; X the
-- 16 bytes of an IPv6 address; E the same, or an IPv4 word behind twelve zeros; D a data source, as
-- E, but four IPv6 words; p bytes; bin, id and len the columns of the custom-field rows.
local SIZES = {B = 1, H = 2, I = 4, Q = 8, M = 6, A = 4, X = 16, E = 16, D = 16}
local COLUMNS = {bin = 8, id = 2, len = 1}

local function body(name, spec, parts, rows)
    local made = {name = name, fields = {}, parts = parts or {}, rows = rows or 0, size = 0, at = {}}
    for field, kind in spec:gmatch("([%w_]+) (%w+)") do
        local size = SIZES[kind] or tonumber(kind:match("^p(%d+)$")) or COLUMNS[kind] * rows
        table.insert(made.fields, {name = field, kind = kind, at = made.size, size = size})
        made.at[field] = made.fields[#made.fields]
        made.size = made.size + size
    end
    return made
end

local ALERT_TEXTS = {"message", "src_usrname", "dst_usrname", "appname", "hostname", "domainname",
                     "commandname", "objectname", "packet"}
local ALERT_TEXTS_V2 = {"message", "src_usrname", "dst_usrname", "appname", "hostname",
                        "domainname", "packet"}
local ALERT_LEGACY = "severity B, action B, protocol B, dst_mac M, src_mac M, flow B, " ..
    "message_len B, vlan H, src_port H, dst_port H, source E, destination E, sig_id I, " ..
    "firsttime I, lasttime I, lasttime_usec I, eventcount I, packet_len H, src_usrname_len B, " ..
    "dst_usrname_len B, appname_len B, hostname_len B, domainname_len B, rsrvd_chara B, " ..
    "data_source D, rsvd64 Q, session_id Q, norm_sigid I, sequence H, trusted B, " ..
    "sig_generator B, commandname_len B, objectname_len B, rsrvd_charb H"
local ALERT_V2 = "session_id Q, userdatabin bin, src_mac M, dst_mac M, sigid I, norm_sigid I, " ..
    "evntcnt I, sip6 X, dip6 X, sip4 A, dip4 A, ftime I, ltime I, ltime_usec I, sport H, " ..
    "dport H, vlan H, sequence H, packet_len H, userdataid id, userdatalen len, protocol B, " ..
    "flow B, action B, severity B, trusted B, sig_generator B, message_len B, pad p5"
local COUNTERS = "dstbytes Q, srcbytes Q, dstpackets Q, srcpackets Q, dstasngeo Q, srcasngeo Q, "
local PORTS = "sport H, dport H, vlan H, iface_in H, iface_out H, "
local FLOW_ROWS = "session_id Q, " .. COUNTERS .. "userdatabin bin, dst_mac M, src_mac M, " ..
    "sip6 X, dip6 X, sip4 A, dip4 A, duration I, duration_usec I, cnt I, ftime I, ltime I, " ..
    "ltime_usec I, " .. PORTS .. "userdataid id, userdatalen len, protocol B, dir B, " ..
    "connstate B, tos_src B, tcp_flags B, "

local ALERT = {
    body("RUVv5_Alert_t", "nadver B, " .. ALERT_LEGACY, {"message", "packet"}),
    body("RUVv5_Alert_t", "nadver B, " .. ALERT_LEGACY, ALERT_TEXTS_V2),
    -- From version 3 on one more byte stands behind the first.
    body("RUVv5_Alert_t", "nadver B, split B, " .. ALERT_LEGACY, ALERT_TEXTS_V2),
    body("RUVv5_Alert_t", "nadver B, split B, " .. ALERT_LEGACY, ALERT_TEXTS),
    body("RUVv5_Alert_t", "nadver B, split B, " .. ALERT_LEGACY, ALERT_TEXTS)}
local LEGACY = {
    [4] = body("RUVv5_Flow_t", "nadver B, nadtype B, pad p2, destbytes Q, sourcebytes Q, " ..
        "destpackets Q, sourcepackets Q, destasngeo Q, sourceasngeo Q, dst_mac M, src_mac M, " ..
        "source E, destination E, duration I, duration_usec I, count I, firsttime I, " ..
        "lasttime I, lasttime_usec I, data_source D, " .. PORTS .. "protocol B, dir B"),
    [5] = body("RUVv5_Syslog_t", "nadver B, nadtype B, body_third_party_type H, ipv4_src A, " ..
        "message_len I", {"message"}),
    [1] = body("RUVv5_WinEvntLog_t", "nadver B, nadtype B, win_ver I, data_source D, eventid I, " ..
        "eventtype H, category H, source_len I, create_time I, write_time I, host_len I, " ..
        "usersid_len I, message_len I, strings_len I, data_len I",
        {"source", "host", "usersid", "message", "strings", "data"})}
local LEGACY_TYPES = {[0] = 1, [4] = 2, [5] = 3, [1] = 4}
local MODERN = {
    {[0] = body("RUVv6_Alert_v1_t", "session_id Q, src_mac M, dst_mac M, sigid I, norm_sigid I, " ..
        "evntcnt I, sip E, dip E, ftime I, ltime I, ltime_usec I, sport H, dport H, vlan H, " ..
        "sequence H, packet_len H, protocol B, flow B, action B, severity B, trusted B, " ..
        "sig_generator B, message_len B, src_usrname_len B, dst_usrname_len B, appname_len B, " ..
        "hostname_len B, domainname_len B, commandname_len B, objectname_len B", ALERT_TEXTS),
     body("RUVv6_Alert_v2_t", ALERT_V2, {"message", "rows", "packet"}, 10),
     body("RUVv6_Alert_v3_t", "flow_id Q, " .. ALERT_V2, {"message", "rows", "packet"}, 10)},
    {[0] = body("RUVv6_Flow_v1_t", COUNTERS .. "dst_mac M, src_mac M, sip E, dip E, duration I, " ..
        "duration_usec I, cnt I, ftime I, ltime I, ltime_usec I, " .. PORTS ..
        "protocol B, dir B"),
     body("RUVv6_Flow_v2_t", FLOW_ROWS .. "pad p2", {"rows"}, 5),
     body("RUVv6_Flow_v3_t", FLOW_ROWS .. "pad p8", {"rows"}, 7)}}
local SYSLOG = body("RUVv6_Syslog_v1_t", "data_time I, rsrvd H, data_len H", {"message"})
local WINDOWS = body("RUVv6_WinEventLog_v1_t", "data_len I", {"text"})
SYSLOG.at.message_len, WINDOWS.at.text_len = SYSLOG.at.data_len, WINDOWS.at.data_len

-- Fields ------------------------------------------------------------------------------------

local F = {}

local function define(name, make, label, ...)
    if F[name] == nil then F[name] = make("ruv." .. name, label or name, ...) end
end

define("magic", ProtoField.bytes, "Stream magic")
define("ruv_pver", ProtoField.uint8, "Protocol version")
define("ruv_data_type", ProtoField.uint16, "Data type", base.DEC, TYPES)
define("ruv_data_ver", ProtoField.uint16, "Data version")
define("request", ProtoField.uint16, "Request", base.DEC, REQUESTS)
define("third_party_type", ProtoField.uint16, "Third-party type")
define("dsidchanid", ProtoField.uint16, "Channel id")
define("version", ProtoField.uint8, "Record version")
define("subversion", ProtoField.uint16, "Record sub-version")
define("source_kind", ProtoField.uint16, "Data source kind", base.DEC, KINDS)
define("source_len", ProtoField.uint32)
define("source", ProtoField.string, "Source")
define("known_type", ProtoField.uint32, "Data type asked for", base.DEC, TYPES)
define("result", ProtoField.string, "Result word")
define("channel_id", ProtoField.int32, "Assigned channel id")
define("count", ProtoField.uint32)
define("entries", ProtoField.int32, "Version entries")
define("entry", ProtoField.none, "Version")
define("entry.ruv_ver", ProtoField.uint16, "ruv_ver")
define("entry.ruv_type", ProtoField.uint16, "ruv_type", base.DEC, TYPES)
define("entry.ruv_type_ver", ProtoField.uint16, "ruv_type_ver")
define("receiver.major", ProtoField.uint16, "major")
define("receiver.minor", ProtoField.uint16, "minor")
define("receiver.dot", ProtoField.uint16, "dot")
define("receiver.patch", ProtoField.string, "patch")
define("receiver.buildstamp", ProtoField.uint64, "buildstamp")
define("catalogue_size", ProtoField.int32, "Custom-field file size")
define("catalogue", ProtoField.string, "Custom-field file")
define("answer_in", ProtoField.framenum, "Answer in", base.NONE, frametype.RESPONSE)
define("request_in", ProtoField.framenum, "Request in", base.NONE, frametype.REQUEST)
define("time", ProtoField.relative_time, "Time since the request")
define("row", ProtoField.none, "Custom-field row")
define("row.id", ProtoField.uint16, "id")
define("row.bin", ProtoField.uint64, "bin", base.HEX)
define("row.text", ProtoField.string, "text")
define("row.field", ProtoField.string, "Field")
define("packet", ProtoField.bytes)
define("data", ProtoField.bytes)
define("skipped", ProtoField.bytes, "Skipped bytes")

local MAKERS = {B = ProtoField.uint8, H = ProtoField.uint16, I = ProtoField.uint32,
                Q = ProtoField.uint64, M = ProtoField.ether, A = ProtoField.string,
                X = ProtoField.string, E = ProtoField.string, D = ProtoField.string,
                p = ProtoField.bytes}

local function define_body(one)
    for _, field in ipairs(one.fields) do
        local maker = MAKERS[field.kind] or MAKERS[field.kind:sub(1, 1)]
        if not COLUMNS[field.kind] then define(field.name, maker) end
    end
    for _, part in ipairs(one.parts) do
        if part ~= "rows" then define(part, ProtoField.string) end
    end
end

for _, group in pairs({ALERT, LEGACY, MODERN[1], MODERN[2], {SYSLOG, WINDOWS}}) do
    for _, one in pairs(group) do define_body(one) end
end
ruv.fields = F

local E_SKIPPED = ProtoExpert.new("ruv.expert.skipped", "Bytes that belong to no unit",
                                  expert.group.PROTOCOL, expert.severity.WARN)
local E_REFUSED = ProtoExpert.new("ruv.expert.refused", "The request was refused",
                                  expert.group.RESPONSE_CODE, expert.severity.NOTE)
local E_ABSURD = ProtoExpert.new("ruv.expert.absurd", "A length or count that cannot be meant",
                                 expert.group.MALFORMED, expert.severity.ERROR)
local E_CUT = ProtoExpert.new("ruv.expert.cut", "Cut short by the capture",
                              expert.group.UNDECODED, expert.severity.NOTE)
ruv.experts = {E_SKIPPED, E_REFUSED, E_ABSURD, E_CUT}

-- Small readers -----------------------------------------------------------------------------

local function uint(tvb, field, base_at)
    local range = tvb(base_at + field.at, field.size)
    return range:le_uint()
end

local function ipv4_text(tvb, at)
    local b = tvb:bytes(at, 4)
    return string.format("%d.%d.%d.%d", b:get_index(3), b:get_index(2), b:get_index(1),
                         b:get_index(0))
end

-- A record's own addresses are in network order, those of data sources four words in host order
-- each; the longest run of zero groups is abbreviated.
local function ipv6_text(tvb, at, words)
    local groups, best, best_at, run = {}, 1, nil, 0
    for i = 1, 8 do
        local group = at + 2 * (i - 1)
        -- the halves of a word stand the other way round
        groups[i] = words and tvb(group + (i % 2 == 1 and 2 or -2), 2):le_uint() or
            tvb(group, 2):uint()
    end
    for i = 1, 8 do
        run = groups[i] == 0 and run + 1 or 0
        if run > best then best, best_at = run, i - run + 1 end
    end
    local text, i = "", 1
    while i <= 8 do
        if i == best_at then
            text, i = text .. "::", i + best
        else
            local joint = (text == "" or text:sub(-2) == "::") and "" or ":"
            text, i = text .. joint .. string.format("%x", groups[i]), i + 1
        end
    end
    return text
end

local function address_text(tvb, at, kind)
    if kind == "A" then return ipv4_text(tvb, at) end
    if kind ~= "X" and tvb:raw(at, 12) == ("\0"):rep(12) then return ipv4_text(tvb, at + 12) end
    return ipv6_text(tvb, at, kind == "D")
end

-- Catalogue ---------------------------------------------------------------------------------

local WIDTHS = {boolean = 1, int8 = 8, uint8 = 8, int16 = 16, uint16 = 16, int32 = 32, uint32 = 32,
                int64 = 64, uint64 = 64, ipv4 = 32, protocol = 8, port = 16, float4 = 32,
                float = 64, string = 0}

local function row_of(value, last)
    local row = (tonumber(value) or 0) - 1
    return row >= 0 and row <= last and row or -1
end

local TAKERS = {
    {"UserField.ID", function(e, v) e.id = tonumber(v) or 0 end},
    {"UserField.Name", function(e, v) e.name = v end},
    {"UserField.UDFldE", function(e, v) e.alert_row = row_of(v, 9) end},
    {"UserField.UDFldF", function(e, v) e.flow_row = row_of(v, 6) end},
    {"UserFieldUse.Offset", function(e, v) e.offset = tonumber(v) or 0 end},
    {"UserFieldUse.Name", function(e, v) e.name = e.name .. "." .. v end},
    {"UserFieldUse.FldType", function(e, v) e.type = v end}}

local function parse_catalogue(text)
    local entries, entry = {}, nil
    for line in text:gmatch("([^\n]*)\n") do
        if line:sub(1, 1) == "[" then
            entry = {name = "", id = 0, alert_row = 0, flow_row = 0, offset = 0, type = ""}
            entries[#entries + 1] = entry
        elseif entry ~= nil then
            local value = line:match("=(.*)$")
            for _, taker in ipairs(TAKERS) do
                if value ~= nil and line:find(taker[1], 1, true) then
                    taker[2](entry, value)
                    break
                end
            end
        end
    end
    return entries
end

-- Takes `width` bits (up to 32) that begin `offset` bits below the top of the 64-bit word.
local function bits_of(high, low, offset, width)
    local shift, mask = 64 - width - offset, 2 ^ width
    if shift < 0 then return nil end
    if shift >= 32 then return math.floor(high / 2 ^ (shift - 32)) % mask end
    return (math.floor(low / 2 ^ shift) + high * 2 ^ (32 - shift)) % mask
end

local function float_text(bytes, format, zero)
    if bytes == zero then return "0" end
    local top = bytes:byte(#bytes)
    bytes = bytes:sub(1, -2) .. string.char((top + 128) % 256)
    return string.format("%.9g", (Struct.unpack(format, bytes)))
end

local function value_text(entry, tvb, at)
    local low, high = tvb(at, 4):le_uint(), tvb(at + 4, 4):le_uint()
    local width = WIDTHS[entry.type]
    if width == nil or width == 0 then return nil end
    if entry.type == "uint64" then return tostring(tvb(at, 8):le_uint64()) end
    if entry.type == "int64" then
        return tostring(Int64.new(low, (high + 2 ^ 31) % 2 ^ 32))
    end
    if entry.type == "float" then
        return float_text(tvb:raw(at, 8), "<d", "\0\0\0\0\0\0\xF0\xFF")
    end
    local value = bits_of(high, low, entry.offset, width)
    if value == nil then return nil end
    if entry.type == "boolean" then return value == 1 and "true" or "false" end
    if entry.type:sub(1, 3) == "int" then return string.format("%d", value - 2 ^ (width - 1)) end
    if entry.type == "float4" then
        return float_text(Struct.pack("<I4", value), "<f", "\0\0\x80\xFF")
    end
    if entry.type == "ipv4" then
        local octets = {}
        for i = 3, 0, -1 do octets[#octets + 1] = math.floor(value / 256 ^ i) % 256 end
        return table.concat(octets, ".")
    end
    return string.format("%d", value)
end

-- Units of the client -----------------------------------------------------------------------

-- measure() looks at the bytes from `at` on. It returns a table with `kind` "incomplete", "skip"
-- (`size` bytes) or "unit" (`size` bytes, and what they are).
local function skip_from(tvb, at, have, first)
    local raw = tvb:raw(at, have)
    local found = raw:find(MAGIC, first, true)
    if found then return {kind = "skip", size = found - 1} end
    for tail = math.min(7, have - first + 1), 1, -1 do
        if raw:sub(-tail) == MAGIC:sub(1, tail) then return {kind = "skip", size = have - tail} end
    end
    return {kind = "skip", size = have}
end

-- `whole` is the size of the unit once it is known; a shorter need only asks for another look.
local function incomplete(whole) return {kind = "incomplete", whole = whole} end

local function parts_size(tvb, at, one)
    local total = 0
    for _, part in ipairs(one.parts) do
        if part == "rows" then
            for row = 0, one.rows - 1 do
                total = total + tvb(at + one.at.userdatalen.at + row, 1):uint()
            end
        else
            total = total + uint(tvb, one.at[part .. "_len"], at)
        end
    end
    return total
end

local function measure_body(tvb, at, have, unit)
    unit.size = unit.head
    if unit.body == nil then return unit end
    unit.size = unit.head + unit.body.size
    if have < unit.size then return incomplete() end
    unit.size = unit.size + parts_size(tvb, at + unit.head, unit.body)
    unit.absurd = unit.size > LARGEST
    if unit.absurd then unit.size = unit.head + unit.body.size end
    return have < unit.size and incomplete(unit.size) or unit
end

local function measure_request(tvb, at, have, unit)
    unit.size = unit.head
    if unit.subversion == 3 then
        if have < unit.head + 4 then return incomplete() end
        unit.size = unit.head + 4 + tvb(at + unit.head + 2, 2):le_uint()
    elseif unit.subversion == 8 then
        unit.size = unit.head + 4
    end
    return have < unit.size and incomplete(unit.size) or unit
end

local function measure(tvb, at)
    local have = tvb:captured_len() - at
    local seen = math.min(have, #MAGIC)
    if tvb:raw(at, seen) ~= MAGIC:sub(1, seen) then return skip_from(tvb, at, have, 1) end
    if have < #MAGIC + 2 then return incomplete() end
    local version = tvb(at + #MAGIC, 1):uint()
    local unit = {kind = "unit", version = version, head = #MAGIC}
    if version == 6 then
        unit.head = #MAGIC + HEADER
        if have < unit.head then return incomplete() end
        local word = tvb(at + #MAGIC, 4):le_uint()
        unit.type = math.floor(word / 256) % 4096
        unit.subversion = math.floor(word / 2 ^ 20)
        if unit.type == 0 then return measure_request(tvb, at, have, unit) end
        if unit.type > 4 then return skip_from(tvb, at, have, 2) end
        local modern = MODERN[unit.type]
        unit.body = modern and modern[unit.subversion]
        if unit.type == 3 then unit.body = SYSLOG elseif unit.type == 4 then unit.body = WINDOWS end
    elseif version >= 1 and version <= 5 then
        local mark = version < 3 and 0 or tvb(at + #MAGIC + 1, 1):uint()
        unit.type = LEGACY_TYPES[mark]
        unit.body = mark == 0 and ALERT[version] or LEGACY[mark]
        if unit.type == nil then return skip_from(tvb, at, have, 2) end
    else
        return skip_from(tvb, at, have, 2)
    end
    return measure_body(tvb, at, have, unit)
end

-- Conversations -----------------------------------------------------------------------------

local stream_field = Field.new("tcp.stream")
local conversations, frames = {}, {}

function ruv.init() conversations, frames = {}, {} end

-- The number of the stream is sure to be there in the first pass only; the frame keeps its
-- conversation for the later ones.
local function conversation_of(pinfo)
    local found = frames[pinfo.number]
    if found == nil then
        local here = tostring(pinfo.src) .. "|" .. pinfo.src_port
        local there = tostring(pinfo.dst) .. "|" .. pinfo.dst_port
        local stream = stream_field()
        local key = stream and stream.value or
            (here < there and here .. there or there .. here)
        found = conversations[key] or {requests = {}, answered = 0, places = {}}
        conversations[key], frames[pinfo.number] = found, found
    end
    return found
end

local function sender_of(pinfo) return tostring(pinfo.src) .. "|" .. pinfo.src_port end

-- A frame is dissected many times, and in one pass several times at the same offset when it ends
-- one reassembled unit and holds others. Each pass comes by in the same order: the places of a
-- frame are given out in turn.
local function place_key(tvb, pinfo, at)
    return pinfo.number .. ":" .. tvb:reported_len() .. ":" .. at .. ":" .. sender_of(pinfo)
end

local function remember(conv, key, index)
    local place = conv.places[key] or {turn = 0}
    conv.places[key] = place
    place[#place + 1] = index
end

local function recall(conv, key)
    local place = conv.places[key]
    if place == nil then return nil end
    place.turn = place.turn % #place + 1
    return conv.requests[place[place.turn]]
end

-- Trees -------------------------------------------------------------------------------------

local function add_rows(tree, tvb, at, next_at, unit, conv)
    local one = unit.body
    for row = 0, one.rows - 1 do
        local id_at, word_at = at + one.at.userdataid.at + 2 * row, at + one.at.userdatabin.at + 8 * row
        local id = tvb(id_at, 2):le_uint()
        local length = tvb(at + one.at.userdatalen.at + row, 1):uint()
        local item = tree:add(F.row, tvb(id_at, 2))
        item:set_text(string.format("Custom-field row %d: %s", row, id == 0 and "free" or "id " .. id))
        item:add_le(F["row.id"], tvb(id_at, 2))
        item:add_le(F["row.bin"], tvb(word_at, 8))
        local text = nil
        if length > 0 then
            text = tvb(next_at, length):string()
            item:add(F["row.text"], tvb(next_at, length))
        end
        for _, entry in ipairs(id ~= 0 and conv.catalogue or {}) do
            local own = unit.type == 1 and entry.alert_row or entry.flow_row
            local value = entry.type == "string" and text or value_text(entry, tvb, word_at)
            if own == row and entry.id % 65536 == id and value ~= nil then
                item:add(F["row.field"], tvb(word_at, 8), entry.name .. " = " .. value)
            end
        end
        next_at = next_at + length
    end
    return next_at
end

local function add_body(tree, tvb, at, unit, conv)
    local one = unit.body
    for _, field in ipairs(one.fields) do
        local range = tvb(at + field.at, field.size)
        if SIZES[field.kind] == 16 or field.kind == "A" then
            tree:add(F[field.name], range, address_text(tvb, at + field.at, field.kind))
        elseif field.kind == "M" or field.kind:sub(1, 1) == "p" then
            tree:add(F[field.name], range)
        elseif not COLUMNS[field.kind] then
            tree:add_le(F[field.name], range)
        end
    end
    local next_at = at + one.size
    for _, part in ipairs(unit.absurd and {} or one.parts) do
        if part == "rows" then
            next_at = add_rows(tree, tvb, at, next_at, unit, conv)
        else
            local length = uint(tvb, one.at[part .. "_len"], at)
            if length > 0 then tree:add(F[part], tvb(next_at, length)) end
            next_at = next_at + length
        end
    end
end

local function add_request(tree, tvb, pinfo, at, unit, conv)
    local known = REQUESTS[unit.subversion] or string.format("Unknown[%d]", unit.subversion)
    tree:add_le(F.request, tvb(at + #MAGIC + 2, 2), unit.subversion)
    if unit.subversion == 3 then
        local kind, length = tvb(at + 16, 2):le_uint(), tvb(at + 18, 2):le_uint()
        tree:add_le(F.source_kind, tvb(at + 16, 2))
        tree:add_le(F.source_len, tvb(at + 18, 2))
        if kind == 1 and length == 4 then
            tree:add(F.source, tvb(at + 20, 4), ipv4_text(tvb, at + 20))
        elseif kind == 2 and length == 16 then
            tree:add(F.source, tvb(at + 20, 16), ipv6_text(tvb, at + 20, true))
        elseif length > 0 then
            tree:add(F.source, tvb(at + 20, length))
        end
    elseif unit.subversion == 8 then
        tree:add_le(F.known_type, tvb(at + 16, 4))
    end
    if unit.subversion == CLOSE_CONN then return known end
    local key = place_key(tvb, pinfo, at)
    if not pinfo.visited then
        conv.requests[#conv.requests + 1] = {code = unit.subversion, name = known,
                                             frame = pinfo.number, time = pinfo.abs_ts}
        remember(conv, key, #conv.requests)
    end
    local request = recall(conv, key)
    if request and request.answer_frame then
        tree:add(F.answer_in, request.answer_frame):set_generated()
    end
    return known
end

local function add_unit(tree, tvb, pinfo, at, unit, conv)
    local item = tree:add(ruv, tvb(at, unit.size))
    local label
    item:add(F.magic, tvb(at, #MAGIC))
    if unit.version == 6 then
        local word = tvb(at + #MAGIC, 4)
        item:add(F.ruv_pver, tvb(at + #MAGIC, 1))
        item:add(F.ruv_data_type, word, unit.type)
        item:add(F.ruv_data_ver, word, unit.subversion)
        item:add_le(F.third_party_type, tvb(at + 12, 2))
        item:add_le(F.dsidchanid, tvb(at + 14, 2))
    end
    if unit.type == 0 then
        label = add_request(item, tvb, pinfo, at, unit, conv)
    else
        label = string.format("%s v%d", TYPES[unit.type], unit.version)
        item:add(F.version, tvb(at + #MAGIC, 1), unit.version)
        if unit.version == 6 then
            label = string.format("%s.%d", label, unit.subversion + 1)
            item:add(F.subversion, tvb(at + #MAGIC, 4), unit.subversion + 1)
        end
        if unit.body then
            label = label .. " (" .. unit.body.name .. ")"
            add_body(item, tvb, at + unit.head, unit, conv)
        end
    end
    if unit.absurd then item:add_proto_expert_info(E_ABSURD) end
    item:set_text("RUV " .. label)
    return label
end

-- Answers of the Receiver -------------------------------------------------------------------

local BODIES = {[3] = 12, [6] = 24}

-- How long the answer to a request is: its size, or nil and its size if only bytes are missing.
local function answer_size(tvb, at, code)
    local have = tvb:captured_len() - at
    if have < 8 then return nil end
    if tvb:raw(at, 8) ~= OKAY then return 8 end
    local size = BODIES[code] or 8
    if code == 2 or code == 7 then
        if have < 12 then return nil end
        local number = tvb(at + 8, 4):le_int()
        size = 12 + number * (code == 2 and 32 or 1)
        if number < 0 or size > LARGEST then return 12 end
    end
    if have < size then return nil, size end
    return size
end

local function add_versions(tree, tvb, at, size)
    tree:add_le(F.entries, tvb(at + 8, 4))
    for entry = at + 12, at + size - 32, 32 do
        local item = tree:add(F.entry, tvb(entry, 32))
        local ver, kind = tvb(entry, 2):le_uint(), tvb(entry + 2, 2):le_uint()
        local type_ver = tvb(entry + 4, 2):le_uint()
        item:set_text(string.format("Version: protocol %d, %s, %d", ver, TYPES[kind] or kind, type_ver))
        item:add_le(F["entry.ruv_ver"], tvb(entry, 2))
        item:add_le(F["entry.ruv_type"], tvb(entry + 2, 2))
        item:add_le(F["entry.ruv_type_ver"], tvb(entry + 4, 2))
    end
end

local function add_answer_body(tree, tvb, pinfo, at, size, request, conv)
    if request.code == 2 then
        add_versions(tree, tvb, at, size)
    elseif request.code == 3 then
        tree:add_le(F.channel_id, tvb(at + 8, 4))
    elseif request.code == 6 then
        tree:add_le(F["receiver.major"], tvb(at + 8, 2))
        tree:add_le(F["receiver.minor"], tvb(at + 10, 2))
        tree:add_le(F["receiver.dot"], tvb(at + 12, 2))
        tree:add(F["receiver.patch"], tvb(at + 14, 2))
        tree:add_le(F["receiver.buildstamp"], tvb(at + 16, 8))
    elseif request.code == 7 then
        tree:add_le(F.catalogue_size, tvb(at + 8, 4))
        if size > 12 then
            tree:add(F.catalogue, tvb(at + 12, size - 12))
            if not pinfo.visited then conv.catalogue = parse_catalogue(tvb:raw(at + 12, size - 12)) end
        end
    end
    if (request.code == 2 or request.code == 7) and size == 12 and tvb(at + 8, 4):le_int() ~= 0 then
        tree:add_proto_expert_info(E_ABSURD)
    end
end

local function add_answer(tree, tvb, pinfo, at, size, request, conv)
    local item = tree:add(ruv, tvb(at, size))
    local good = tvb:raw(at, 8) == OKAY
    item:add(F.result, tvb(at, 8))
    item:add(F.request, tvb(at, 8), request.code):set_generated()
    item:add(F.request_in, request.frame):set_generated()
    item:add(F.time, NSTime.new(0, math.max(0, pinfo.abs_ts - request.time) * 1e9)):set_generated()
    if good and size > 8 then add_answer_body(item, tvb, pinfo, at, size, request, conv) end
    if not good then item:add_proto_expert_info(E_REFUSED) end
    local label = string.format("%s: %s", request.name, good and "OKAY" or "refused")
    item:set_text("RUV answer to " .. label)
    return label
end

-- Walking through a segment -----------------------------------------------------------------

-- Asks for more bytes from `at` on; false when the capture itself ends here.
local function wait_for_more(tree, tvb, pinfo, at, whole)
    if tvb:captured_len() < tvb:reported_len() or pinfo.can_desegment == 0 then
        tree:add(ruv, tvb(at)):add_proto_expert_info(E_CUT)
        return
    end
    pinfo.desegment_offset = at
    pinfo.desegment_len = whole and whole - (tvb:captured_len() - at) or DESEGMENT_ONE_MORE_SEGMENT
end

local function dissect_client(tvb, pinfo, tree, conv, labels)
    local at = 0
    while at < tvb:captured_len() do
        local unit = measure(tvb, at)
        if unit.kind == "incomplete" then return wait_for_more(tree, tvb, pinfo, at, unit.whole) end
        if unit.kind == "skip" then
            local item = tree:add(ruv, tvb(at, unit.size))
            item:add(F.skipped, tvb(at, unit.size))
            item:add_proto_expert_info(E_SKIPPED)
            labels[#labels + 1] = string.format("%d bytes skipped", unit.size)
        else
            labels[#labels + 1] = add_unit(tree, tvb, pinfo, at, unit, conv)
        end
        at = at + unit.size
    end
end

local function dissect_receiver(tvb, pinfo, tree, conv, labels)
    local at = 0
    while at < tvb:captured_len() do
        local key = place_key(tvb, pinfo, at)
        local request
        if pinfo.visited then
            request = recall(conv, key)
        else
            request = conv.requests[conv.answered + 1]
        end
        if request == nil then
            tree:add(ruv, tvb(at)):add(F.skipped, tvb(at))
            labels[#labels + 1] = "no request to this"
            return
        end
        local size, whole = answer_size(tvb, at, request.code)
        if size == nil then return wait_for_more(tree, tvb, pinfo, at, whole) end
        if not pinfo.visited then
            conv.answered = conv.answered + 1
            request.answer_frame = pinfo.number
            remember(conv, key, conv.answered)
        end
        labels[#labels + 1] = add_answer(tree, tvb, pinfo, at, size, request, conv)
        at = at + size
    end
end

-- TLS begins with the first byte or behind the answer to ReqSSL; no unit and no result word looks
-- like the head of a TLS record.
local function looks_like_tls(tvb)
    if tvb:captured_len() < 2 then return false end
    local first = tvb(0, 1):uint()
    return first >= 0x14 and first <= 0x17 and tvb(1, 1):uint() == 3
end

-- True for a magic, or for the part of one that a short segment holds.
local function looks_like_unit(tvb)
    local seen = math.min(tvb:captured_len(), #MAGIC)
    return seen >= 4 and tvb:raw(0, seen) == MAGIC:sub(1, seen)
end

local function dissect(tvb, pinfo, tree)
    if tvb:captured_len() == 0 then return 0 end
    if looks_like_tls(tvb) then
        Dissector.get("tls"):call(tvb, pinfo, tree)
        return tvb:captured_len()
    end
    local conv = conversation_of(pinfo)
    pinfo.cols.protocol = "RUV"
    if conv.client == nil and looks_like_unit(tvb) then conv.client = sender_of(pinfo) end
    local labels = {}
    -- A stream whose beginning was missed: whoever does not send result words is the client.
    if conv.client == sender_of(pinfo) or (conv.client == nil and #conv.requests == 0) then
        dissect_client(tvb, pinfo, tree, conv, labels)
    else
        dissect_receiver(tvb, pinfo, tree, conv, labels)
    end
    if #labels > 0 then
        local shown = table.concat(labels, ", ", 1, math.min(#labels, 5))
        pinfo.cols.info = shown .. (#labels > 5 and string.format(" and %d more", #labels - 5) or "")
    end
    return tvb:captured_len()
end

function ruv.dissector(tvb, pinfo, tree) return dissect(tvb, pinfo, tree) end

-- Calls the function and not ruv.dissector: that would count as one more dissector in the chain,
-- and only the first one may ask for more bytes.
local function heuristic(tvb, pinfo, tree)
    if not looks_like_unit(tvb) and conversation_of(pinfo).client == nil then return false end
    dissect(tvb, pinfo, tree)
    pinfo.conversation = ruv
    return true
end

ruv:register_heuristic("tcp", heuristic)
ruv:register_heuristic("tls", heuristic)
DissectorTable.get("tcp.port"):add_for_decode_as(ruv)
