-- Puts what was read into the tree, with what is wrong about it.

local layouts = require("rtls_layouts")
local make_fields = require("rtls_fields").make
local reader = require("rtls_reader")
local stream = require("rtls_stream")
local conversation = require("rtls_conversation")

local M = {}

local proto, fields, experts

local function make_experts()
    local function new(name, text, group, severity)
        return ProtoExpert.new("rtlsgw.expert." .. name, text, group, severity)
    end
    local malformed, undecoded = expert.group.MALFORMED, expert.group.UNDECODED
    return {
        invalid = new("invalid", "No message of this direction", malformed, expert.severity.ERROR),
        broken = new("broken", "A frame without an end: another begins", malformed, expert.severity.WARN),
        outside = new("outside", "Bytes outside frames: nobody reads them", malformed, expert.severity.WARN),
        empty = new("empty", "A frame without a message", malformed, expert.severity.NOTE),
        repeated = new("repeated", "A frame begins twice", malformed, expert.severity.NOTE),
        doubt = new("doubt", "Not all is understood", undecoded, expert.severity.NOTE),
    }
end

-- Gives the protocol its fields and its expert infos. Once, before all else.
function M.make(of_proto)
    local list
    proto = of_proto
    fields, list = make_fields(layouts)
    experts = make_experts()
    proto.fields = list
    proto.experts = experts
end

local function titled(line, item)
    if item.message then line:set_text("message: " .. item.message.kind) end
    if item.doubt then line:add_proto_expert_info(experts.doubt, item.doubt) end
end

local function add_items(tree, items)
    for _, item in ipairs(items) do
        local line
        if item.value ~= nil then
            line = tree:add(fields[item.name], item.range, item.value)
        else
            line = tree:add(fields[item.name], item.range)
        end
        titled(line, item)
        if item.below then add_items(line, item.below) end
    end
end

local function add_generated(tree, name, value)
    tree:add(fields[name], value):set_generated()
end

local function add_pair(tree, direction, pair)
    if direction == "up" then
        if pair.response then add_generated(tree, "response_in", pair.response) end
        return
    end
    add_generated(tree, "request_in", pair.request)
    local microseconds = math.floor(pair.delay * 1e6 + 0.5) -- the clock is a floating-point number
    add_generated(tree, "response_time", NSTime.new(math.floor(microseconds / 1e6), microseconds % 1e6 * 1000))
end

-- For the column: the kind, with what is within.
local function title_of(message)
    local title = message.kind
    if message.sub_command then title = title .. " " .. message.sub_command end
    if message.within then title = title .. "(" .. title_of(message.within) .. ")" end
    return title
end

local function add_invalid(tree, range, reason)
    tree:add(fields.kind, range, "invalid")
    tree:add(fields.reason, range, reason)
    tree:add(fields.bytes, range)
    tree:add_proto_expert_info(experts.invalid, reason)
end

-- What was read of all of `tvb`, or why it was nothing; the return is what the column says of it, and the new line.
local function add_read(tree, tvb, direction, message, reason)
    local range = tvb:range(0, tvb:len())
    local line = tree:add(proto, range)
    add_generated(line, "direction", direction)
    local title = message and title_of(message) or "invalid"
    line:set_text("RTLS " .. direction .. ": " .. title)
    if message then
        add_items(line, message.head)
        add_items(line, message.items)
    else
        add_invalid(line, range, reason)
    end
    return title, line
end

-- Decodes all of `tvb` as one message. `where` is nothing where messages have no answers.
function M.add_message(tree, tvb, direction, pinfo, where)
    local message, reason = reader.read(direction, tvb)
    local title, line = add_read(tree, tvb, direction, message, reason)
    local pair = message and where and conversation.pair_of(direction, message, tvb:raw(), where, pinfo)
    if pair then add_pair(line, direction, pair) end
    return title
end

-- A text and what has been read of it.
function M.add_line(tree, tvb, direction, message, reason)
    local title, line = add_read(tree, tvb, direction, message, reason)
    line:add(fields.line, tvb:range(0, tvb:len()))
    return title
end

local function tvb_of(tvb, frame)
    if frame.has_escapes then return ByteArray.new(frame.content, true):tvb("Without stuffing") end
    return tvb(frame.first, #frame.content):tvb()
end

local function is_greeting(direction, bytes)
    return direction == "down" and bytes == "sync\n"
end

local odd_titles = { outside = "outside frames", broken = "frame without an end", empty = "empty frame",
                     repeated = "repeated begin" }

local function add_odd_piece(tree, tvb, found, direction)
    local range = tvb(found.first - 1, found.last - found.first + 1)
    local line = tree:add(proto, range)
    if found.as == "outside" and is_greeting(direction, range:raw()) then
        line:set_text("RTLS down: sync"):add(fields.sync, range, "sync")
        return "sync"
    end
    line:set_text("RTLS " .. direction .. ": " .. odd_titles[found.as])
    line:add(fields.outside, range)
    line:add_proto_expert_info(experts[found.as])
    return odd_titles[found.as]
end

-- Decodes the bytes of one connection and direction. Returns what the column says, and how many bytes at the end are a
-- frame that is not whole.
function M.add_stream(tree, tvb, direction, pinfo, where)
    local pieces, pending = stream.split(tvb:raw())
    local titles = {}
    for _, found in ipairs(pieces) do
        local title
        if found.as == "frame" then
            title = M.add_message(tree, tvb_of(tvb, found), direction, pinfo, where)
        else
            title = add_odd_piece(tree, tvb, found, direction)
        end
        titles[#titles + 1] = title
    end
    return table.concat(titles, ", "), pending
end

return M
