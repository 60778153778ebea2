-- Messages of a gateway's tap, as recordings have them: topic, head and frames in one packet.

local tree_of = require("rtls_tree")
local management = require("rtls_management")

local M = {}

local proto, fields
local pending, joined -- by stream: what the next packet goes on with; by packet: what it goes on with

function M.reset()
    pending, joined = {}, {}
end
M.reset()

local names = { [0] = "up", [1] = "down", [2] = "neither" }
local head_size = 24

local function tap_field(kind, name, ...)
    return ProtoField[kind]("rtls_tap." .. name, name, ...)
end

-- Gives the protocol its fields. Once, before all else.
function M.make(of_proto)
    proto = of_proto
    fields = {
        topic = tap_field("string", "topic"),
        version = tap_field("uint8", "version"),
        direction = tap_field("uint8", "direction", base.DEC, names),
        connection = tap_field("uint32", "connection"),
        number = tap_field("uint64", "number"),
        clock = tap_field("absolute_time", "clock", base.UTC),
        frame = tap_field("bytes", "frame"),
        event = tap_field("string", "event"),
        member = tap_field("string", "event.member"),
        cut = ProtoExpert.new("rtls_tap.expert.cut", "It ends before its lengths say", expert.group.MALFORMED,
                              expert.severity.ERROR),
    }
    local list = {}
    for name, field in pairs(fields) do
        if name ~= "cut" then list[#list + 1] = field end
    end
    proto.fields = list
    proto.experts = { fields.cut }
end

local function add_head(tree, range)
    tree:add(fields.version, range(0, 1))
    tree:add(fields.direction, range(1, 1))
    tree:add(fields.connection, range(4, 4))
    tree:add(fields.number, range(8, 8))
    local clock = range(16, 8):uint64()
    tree:add(fields.clock, range(16, 8), NSTime.new((clock / 1000000000):tonumber(), (clock % 1000000000):tonumber()))
end

-- The payload's frames, as ranges; nothing when the packet ends within one.
local function frames_of(tvb, at)
    local frames = {}
    while at < tvb:len() do
        if tvb:len() - at < 4 then return nil end
        local size = tvb(at, 4):uint()
        if tvb:len() - at - 4 < size then return nil end
        frames[#frames + 1] = tvb:range(at + 4, size)
        at = at + 4 + size
    end
    return frames
end

local function tvb_of(bytes, name)
    return ByteArray.new(bytes, true):tvb(name)
end

local function all_of(frames)
    local bytes = {}
    for _, frame in ipairs(frames) do bytes[#bytes + 1] = frame:raw() end
    return table.concat(bytes)
end

local function add_report(tree, message, pinfo)
    return tree_of.add_message(tree, tvb_of(all_of(message.frames), "Report"), "report", pinfo)
end

local function add_management(tree, message)
    local tvb = tvb_of(all_of(message.frames), "Line")
    return tree_of.add_line(tree, tvb, "management", management.read(tvb))
end

-- An odd digit at the end is dropped, as the gateway does.
local function add_command(tree, message, pinfo)
    local text = all_of(message.frames)
    local digits = text:match("^%x+")
    if not digits or #digits ~= #text then
        return tree_of.add_line(tree, tvb_of(text, "Command"), "command", nil, "its text is no hex")
    end
    local bytes = ByteArray.new(digits:sub(1, #digits - #digits % 2))
    return tree_of.add_message(tree, bytes:tvb("Command"), "command", pinfo)
end

local function add_event(tree, message)
    local text = all_of(message.frames)
    local event = text:match('"event":"([^"]*)"') or "event"
    local range = message.frames[1]
    local line = tree:add(fields.event, range, event)
    for name, value in text:gmatch('"([%w_]+)":("?[^,"}]*)') do
        line:add(fields.member, range, name .. ": " .. value:gsub('"', ""))
    end
    return event
end

-- What the connection has left over from the packet before. A greeting is the first thing that is ever written.
local function left_over(stream, greets, other_stream, pinfo)
    if not pinfo.visited then
        if greets then pending[stream], pending[other_stream] = nil, nil end
        joined[pinfo.number] = pending[stream] or ""
    end
    return joined[pinfo.number] or ""
end

local function add_link(tree, message, pinfo, direction, other)
    local bytes = all_of(message.frames)
    local where = "tap " .. (message.connection > 0 and message.connection or message.name)
    local before = left_over(direction .. where, bytes:sub(1, 5) == "sync\n", other .. where, pinfo)
    local tvb = tvb_of(before .. bytes, before ~= "" and "Joined with what came before" or "Bytes of the connection")
    local titles, size = tree_of.add_stream(tree, tvb, direction, pinfo, where)
    if not pinfo.visited then pending[direction .. where] = size > 0 and (before .. bytes):sub(-size) or nil end
    return titles
end

local topics = {
    report = add_report,
    management = add_management,
    command = add_command,
    event = add_event,
    ["link/in"] = function(tree, message, pinfo) return add_link(tree, message, pinfo, "up", "down") end,
    ["link/out"] = function(tree, message, pinfo) return add_link(tree, message, pinfo, "down", "up") end,
}

local function class_of(topic)
    return topic:match("^(link/%a+)/") or topic:match("^(report)/") or topic
end

local function read(tvb)
    if tvb:len() < 2 then return nil end
    local topic_size = tvb(0, 2):uint()
    local head_at = 2 + topic_size
    if tvb:len() < head_at + head_size then return nil end
    return { topic = tvb(2, topic_size):raw(), topic_range = tvb:range(2, topic_size), head = tvb(head_at, head_size),
             connection = tvb(head_at + 4, 4):uint(), name = tvb(2, topic_size):raw():match("[^/]*$"),
             frames = frames_of(tvb, head_at + head_size) }
end

local function add_payload(tree, root, message, pinfo)
    for _, frame in ipairs(message.frames) do tree:add(fields.frame, frame) end
    local add = topics[class_of(message.topic)]
    return add and #message.frames > 0 and add(root, message, pinfo) or ""
end

-- Returns what the column says.
function M.add(root, tvb, pinfo)
    local tree = root:add(proto, tvb())
    local message = read(tvb)
    if not message or not message.frames then
        tree:add_proto_expert_info(fields.cut)
        return "no whole message"
    end
    tree:append_text(": " .. message.topic)
    tree:add(fields.topic, message.topic_range)
    add_head(tree, message.head)
    return message.topic .. "  " .. add_payload(tree, root, message, pinfo)
end

return M
