-- Shows the captures of plaxd-standin in Wireshark and tshark.
--
-- A packet is a description that plaxd-standin has written, and the bytes that were sent. The description has the
-- fields of a request, so the only thing that is decoded here is the header of a frame: a new command needs no line.

local plaxd = Proto("plaxd", "Placement daemon")

local field = {
    connection = ProtoField.uint64("plaxd.connection", "Connection"),
    kind = ProtoField.string("plaxd.kind", "Kind"),
    command = ProtoField.string("plaxd.command", "Command"),
    code = ProtoField.uint32("plaxd.code", "Code"),
    status = ProtoField.uint32("plaxd.status", "Status", base.HEX),
    statusName = ProtoField.string("plaxd.status_name", "Status name"),
    length = ProtoField.uint32("plaxd.length", "Length"),
    payload = ProtoField.bytes("plaxd.payload", "Payload"),
    text = ProtoField.string("plaxd.text", "Text"),
    field = ProtoField.string("plaxd.field", "Field"),
    violation = ProtoField.string("plaxd.violation", "Violation"),
    warning = ProtoField.string("plaxd.warning", "Warning"),
    outcome = ProtoField.string("plaxd.outcome", "Outcome"),
    fault = ProtoField.string("plaxd.fault", "Fault"),
    ["end"] = ProtoField.string("plaxd.end", "End"),
    requestIn = ProtoField.framenum("plaxd.request_in", "Request in", base.NONE, frametype.REQUEST),
    replyIn = ProtoField.framenum("plaxd.reply_in", "Reply in", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("plaxd.time", "Time since the request"),
}
local expertInfo = {
    violation = ProtoExpert.new("plaxd.expert.violation", "The request violates the protocol",
                                expert.group.MALFORMED, expert.severity.ERROR),
    warning = ProtoExpert.new("plaxd.expert.warning", "Nobody can have meant this request",
                              expert.group.PROTOCOL, expert.severity.WARN),
    cut = ProtoExpert.new("plaxd.expert.cut", "The reply is not a whole frame",
                          expert.group.MALFORMED, expert.severity.ERROR),
}

plaxd.fields = {}
for _, protoField in pairs(field) do
    table.insert(plaxd.fields, protoField)
end
plaxd.experts = { expertInfo.violation, expertInfo.warning, expertInfo.cut }

local headerSize = 8
local exchanges = {} -- by the number of the connection: where the request is and when it came, and where the reply is

function plaxd.init()
    exchanges = {}
end

-- The lines of the description, each with the bytes that it was read from.
local function readDescription(range)
    local lines = {}
    local position = 0
    for line in range:raw():gmatch("([^\n]*)\n") do
        local key, value = line:match("^([^\t]*)\t(.*)$")
        table.insert(lines, { key = key, value = value, range = range(position, #line) })
        position = position + #line + 1
    end
    return lines
end

local function valueOf(lines, key)
    for _, line in ipairs(lines) do
        if line.key == key then
            return line.value
        end
    end
    return ""
end

local function valuesOf(lines, key)
    local values = ""
    for _, line in ipairs(lines) do
        if line.key == key then
            values = values .. " " .. line.value
        end
    end
    return values
end

local function showDescription(lines, tree)
    for _, line in ipairs(lines) do
        if line.key == "connection" then
            tree:add(field.connection, line.range, UInt64(tonumber(line.value)))
        elseif field[line.key] ~= nil then
            local item = tree:add(field[line.key], line.range, line.value)
            if line.key == "field" then
                item:set_text(line.value)
            elseif expertInfo[line.key] ~= nil then
                item:add_proto_expert_info(expertInfo[line.key], line.value)
            end
        end
    end
end

-- Wireshark gives times as binary fractions, which hold no decimal ones exactly.
local function timeBetween(from, to)
    local nanoseconds = math.floor((to - from) * 1e9 + 0.5)
    return NSTime.new(math.floor(nanoseconds / 1e9), nanoseconds % 1e9)
end

-- Links the packets of a connection. Those that come later are known when the packets are looked at again.
local function link(lines, pinfo, tree)
    local number = valueOf(lines, "connection")
    local kind = valueOf(lines, "kind")
    local exchange = exchanges[number] or {}
    exchanges[number] = exchange
    if kind == "request" then
        exchange.request, exchange.time = pinfo.number, pinfo.rel_ts
        if exchange.reply ~= nil then
            tree:add(field.replyIn, exchange.reply):set_generated()
        end
        return
    end
    if kind ~= "end" and exchange.reply == nil then
        exchange.reply = pinfo.number
    end
    if exchange.request ~= nil then
        tree:add(field.requestIn, exchange.request):set_generated()
        tree:add(field.time, timeBetween(exchange.time, pinfo.rel_ts)):set_generated()
    end
end

local function showPayload(bytes, tree, isText)
    if bytes:len() > headerSize then
        tree:add(field.payload, bytes(headerSize))
        if isText then
            tree:add(field.text, bytes(headerSize))
        end
    end
end

-- These show the bytes, and give what the packet list says of them. `size` is that before the capture cut them.
local show = {}

function show.request(bytes, size, lines, tree)
    if bytes:len() >= headerSize then
        tree:add(field.code, bytes(0, 4))
        tree:add(field.length, bytes(4, 4))
        showPayload(bytes, tree, false)
    end
    return valueOf(lines, "command") .. valuesOf(lines, "field")
end

function show.reply(bytes, size, lines, tree)
    if size < headerSize then
        local summary = size .. " of 8 header bytes"
        tree:add_proto_expert_info(expertInfo.cut, summary)
        return summary
    end
    local length, came = bytes(4, 4):uint(), size - headerSize
    local summary = came == length and length .. " bytes" or came .. " of " .. length .. " bytes"
    tree:add(field.status, bytes(0, 4))
    local item = tree:add(field.length, bytes(4, 4))
    if came ~= length then
        item:add_proto_expert_info(expertInfo.cut, summary)
    end
    showPayload(bytes, tree, true)
    local name = valueOf(lines, "statusName")
    return string.format("0x%08x", bytes(0, 4):uint()) .. (name ~= "" and " " .. name or "") .. ", " .. summary
end

function show.stream(bytes, size, lines, tree)
    tree:add(field.payload, bytes)
    tree:add(field.text, bytes)
    return "stream, " .. size .. " bytes"
end

show["end"] = function(bytes, size, lines, tree)
    return valueOf(lines, "outcome") .. ", " .. valueOf(lines, "end")
end

function plaxd.dissector(tvb, pinfo, root)
    local start = 4 + tvb(0, 4):uint()
    local lines = readDescription(tvb(4, start - 4))
    local kind = valueOf(lines, "kind")
    local tree = root:add(plaxd, tvb(), "Placement daemon, " .. kind)
    showDescription(lines, tree)
    link(lines, pinfo, tree)
    local bytes = tvb:len() > start and tvb(start) or ByteArray.new()
    pinfo.cols.protocol = "plaxd"
    pinfo.cols.src = kind == "request" and "client " .. valueOf(lines, "connection") or "daemon"
    pinfo.cols.dst = kind == "request" and "daemon" or "client " .. valueOf(lines, "connection")
    pinfo.cols.info = show[kind](bytes, tvb:reported_len() - start, lines, tree)
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, plaxd)
