-- The fields that can be filtered for: one for each name in the layouts, "rtlsgw." and the name.
-- A name has one type in all messages; a layout that breaks this does not load.

local M = {}

M.roles = {
    [0] = "undefined", [1] = "fixed", [2] = "mobile", [3] = "pending", [4] = "bridge", [5] = "tdoa-mobile", [6] = "sensor",
}

local function unsigned(part)
    return ({ "uint8", "uint16", nil, "uint32" })[part.width]
end

-- The constructor of each form's field.
local types = {
    number = unsigned,
    length = unsigned,
    identifier = unsigned,
    signed = function() return "int32" end,
    role = function() return "uint8" end,
    body = function() return "uint16" end,
    bytes = function() return "bytes" end,
    rest = function() return "bytes" end,
    text = function() return "string" end,
    address = function(part) return part.width == 4 and "ipv4" or "ipv6" end,
    message = function() return "none" end,
    entries = function() return "none" end,
}

local function made(kind, name, ...)
    return ProtoField[kind]("rtlsgw." .. name, name, ...)
end

local function sub_commands(layouts)
    local names = {}
    for _, bodies in ipairs { layouts.bodies_up, layouts.bodies_down } do
        for _, row in ipairs(bodies.rows) do names[row.type] = row.kind end
    end
    return names
end

local function field_of(part, kind, layouts)
    if part.as == "role" then return made(kind, part.name, base.DEC, M.roles) end
    if part.as == "body" then return made(kind, part.name, base.DEC, sub_commands(layouts)) end
    if part.as == "identifier" then return made(kind, part.name, base.HEX) end
    if part.unit then return made(kind, part.name, base.UNIT_STRING, { " " .. part.unit }) end
    if kind:find("int") then return made(kind, part.name, base.DEC) end
    return made(kind, part.name)
end

-- Calls `with` for each part of all messages, bodies and entries.
local function each_part(parts, with)
    for _, part in ipairs(parts) do
        if part.name then with(part) end
        if part.entry then each_part(part.entry, with) end
        if part.messages then
            for _, row in ipairs(part.messages.rows) do each_part(row.parts, with) end
        end
    end
end

local function each_part_of_all(layouts, with)
    for _, set in pairs(layouts) do
        each_part(set.head or {}, with)
        for _, row in ipairs(set.rows) do each_part(row.parts, with) end
    end
end

-- What is no part of a layout.
local function own_fields()
    return {
        kind = made("string", "kind"),
        direction = made("string", "direction"),
        msgType = made("uint16", "msgType", base.HEX),
        ack_requested = made("bool", "ack_requested"),
        direct_mask = made("bool", "direct_mask"),
        node_state = made("uint8", "node_state", base.HEX),
        z_val = made("int16", "z_val", base.DEC),
        z_offset = made("int16", "z_offset", base.DEC),
        requester = made("none", "requester"),
        range = made("none", "range"),
        bytes = made("bytes", "bytes"),
        reason = made("string", "reason"),
        outside = made("bytes", "outside"),
        sync = made("string", "sync"),
        line = made("string", "line"),
        request_in = ProtoField.framenum("rtlsgw.request_in", "request in", base.NONE, frametype.REQUEST),
        response_in = ProtoField.framenum("rtlsgw.response_in", "response in", base.NONE, frametype.RESPONSE),
        response_time = ProtoField.relative_time("rtlsgw.response_time", "response time"),
    }
end

-- All fields by name, and as the list that a protocol takes.
function M.make(layouts)
    local fields, known = own_fields(), {}
    each_part_of_all(layouts, function(part)
        local kind = types[part.as](part)
        assert(not known[part.name] or known[part.name] == kind, part.name .. " has two types")
        if not known[part.name] then
            known[part.name] = kind
            fields[part.name] = field_of(part, kind, layouts)
        end
        if part.as == "text" then fields[part.name .. "_bytes"] = made("bytes", part.name .. "_bytes") end
    end)
    local list = {}
    for _, field in pairs(fields) do list[#list + 1] = field end
    return fields, list
end

return M
