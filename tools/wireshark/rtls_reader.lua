-- Reads a message by its layout: into items first, because a layout that does not fit leaves nothing behind.
--
-- An item is what becomes a line of the tree: its field's name, its bytes, its value where the bytes do not say it, and
-- the items below it.

local layouts = require("rtls_layouts")

local M = {}

local flag_bits = { ack_requested = 0x1000, direct_mask = 0x2000 }
local role_mask, role_little_endian = 0x0F, 0x80

local read_message -- a message may have one within

-- A reader walks the bytes from `at` to before `stop`.
local function reader(tvb, at, stop, bodies)
    return { tvb = tvb, at = at, stop = stop, bodies = bodies, items = {} }
end

local function left(r)
    return r.stop - r.at
end

local function take(r, size)
    local range = r.tvb(r.at, size)
    r.at = r.at + size
    return range
end

local function add(r, name, range, value)
    local item = { name = name, range = range, value = value }
    r.items[#r.items + 1] = item
    return item
end

local function order_of(r, part)
    if part.order ~= "by role" then return part.order end
    return r.role_is_little_endian and "little" or "big"
end

local function number_of(r, part, range)
    if order_of(r, part) == "little" then
        return part.as == "signed" and range:le_int() or range:le_uint()
    end
    return part.as == "signed" and range:int() or range:uint()
end

local function half_of(value)
    local half = value % 0x10000
    return half < 0x8000 and half or half - 0x10000
end

local function take_number(r, part, range)
    local value = number_of(r, part, range)
    if part.least and (value < part.least or value > part.most) then
        return nil, part.name .. " is " .. value
    end
    if part.as == "length" then r.counted = value + (part.beside or 0) end
    local item = add(r, part.name, range, value)
    if part.name == "pos_Z" then
        item.below = { { name = "z_val", range = range, value = half_of(value) },
                       { name = "z_offset", range = range, value = half_of(math.floor(value / 0x10000)) } }
    end
    return true
end

local function take_role(r, part, range)
    local byte = range:uint()
    r.role_is_little_endian = bit.band(byte, role_little_endian) ~= 0
    add(r, part.name, range, bit.band(byte, role_mask))
    add(r, "node_state", range, bit.band(byte, 0xF0))
    return true
end

local function take_fixed(r, part)
    if left(r) < part.width then return nil, "it ends before " .. part.name .. " does" end
    local range = take(r, part.width)
    if part.as == "role" then return take_role(r, part, range) end
    if part.as == "bytes" or part.as == "address" then return add(r, part.name, range) end
    return take_number(r, part, range)
end

local read_parts

local function take_entries(r, part)
    local size, count = 0, 0
    for _, of_entry in ipairs(part.entry) do size = size + of_entry.width end
    local list = add(r, part.name, r.tvb(r.at, left(r) - left(r) % size))
    list.below = {}
    while left(r) >= size do
        local entry = reader(r.tvb, r.at, r.at + size)
        local done, reason = read_parts(entry, part.entry)
        if not done then return nil, reason end
        list.below[#list.below + 1] = { name = part.name == "ranges" and "range" or "requester", range = take(r, size),
                                        below = entry.items }
        count = count + 1
    end
    return count > 0 or nil, part.name .. " has no entry"
end

local function move(items, to)
    for _, item in ipairs(items) do to[#to + 1] = item end
end

local function read_to_the_end(r, parts)
    local done, reason = read_parts(r, parts)
    if done and left(r) > 0 then return nil, left(r) .. " bytes too many" end
    return done, reason
end

-- What no row fits keeps its bytes: the gateway passes it on unread.
local function take_body(r, part, range)
    if range:len() < 2 then return add(r, "data", range) end
    local code, at, stop = range(0, 2):uint(), range:offset() + 2, range:offset() + range:len()
    local name = add(r, part.name, range(0, 2), code)
    for _, row in ipairs(r.bodies.rows) do
        if row.type == code then
            local body = reader(r.tvb, at, stop)
            local done, reason = read_to_the_end(body, row.parts)
            if done then
                r.sub_command = row.kind
                move(body.items, r.items)
                return true
            end
            name.doubt = row.kind .. ": " .. reason
        end
    end
    add(r, "data", r.tvb(at, stop - at))
    return true
end

local function take_message(r, part, range)
    local at = range:offset()
    local within, reason = read_message(part.messages, r.bodies, r.tvb, at, at + range:len())
    if not within then return nil, part.name .. ": " .. reason end
    local item = add(r, part.name, range)
    item.message, item.below = within, within.items
    r.within = within
    return true
end

local function take_text(r, part, range)
    local printable = range:len() == 0 or not range:raw():find("[^\x20-\x7E]")
    return add(r, printable and part.name or part.name .. "_bytes", range)
end

local varying = { message = take_message, body = take_body, text = take_text }

local function take_varying(r, part)
    local size = r.counted or left(r)
    r.counted = nil
    if left(r) < size then
        return nil, size .. " bytes of " .. part.name .. " are counted, " .. left(r) .. " are there"
    end
    local range = take(r, size)
    if varying[part.as] then return varying[part.as](r, part, range) end
    return add(r, part.name, range)
end

local function read_part(r, part)
    if part.as == "entries" then return take_entries(r, part) end
    if part.as == "rest" then
        if left(r) > 0 then add(r, part.name, take(r, left(r))).doubt = "nobody reads these bytes" end
        return true
    end
    if part.width then return take_fixed(r, part) end
    return take_varying(r, part)
end

read_parts = function(r, parts)
    local is_there = true
    for _, part in ipairs(parts) do
        if part.as == "optional" then
            is_there = is_there and left(r) >= part.width
        elseif is_there or part.as == "rest" then
            local done, reason = read_part(r, part)
            if not done then return nil, reason end
        end
    end
    return true
end

local function allowed_flags(row)
    local bits = 0
    for _, name in ipairs(row.flags or {}) do bits = bits + flag_bits[name] end
    return bits
end

local function add_type(r, row, order, type_range)
    add(r, "kind", type_range or r.tvb(r.at, left(r)), row.kind)
    if not type_range then return end
    local value = order == "little" and type_range:le_uint() or type_range:uint()
    add(r, "msgType", type_range, value)
    for _, name in ipairs(row.flags or {}) do
        add(r, name, type_range, bit.band(value, flag_bits[name]) ~= 0)
    end
end

local function message_of(r, row)
    return { kind = row.kind, items = r.items, within = r.within, sub_command = r.sub_command }
end

local function read_row(set, row, bodies, tvb, at, stop)
    local r = reader(tvb, at, stop, bodies)
    if stop - at < (row.least or 0) then
        return nil, row.kind .. ": " .. stop - at .. " bytes, " .. row.least .. " are the least"
    end
    add_type(r, row, set.order, set.order and take(r, 2))
    local done, reason = read_to_the_end(r, row.parts)
    if not done then return nil, row.kind .. ": " .. reason end
    return message_of(r, row)
end

-- The first row that fits; of several that do not, the first has the say.
local function read_rows(set, type, bodies, tvb, at, stop)
    local why
    for _, row in ipairs(set.rows) do
        if not type or bit.band(type, bit.bnot(allowed_flags(row))) == row.type then
            local message, reason = read_row(set, row, bodies, tvb, at, stop)
            if message then return message end
            why = why or reason
        end
    end
    return nil, why
end

local function read_other(set, type, tvb, at, stop)
    if not set.others then return nil, string.format("no such message has the type %04x", type) end
    local r = reader(tvb, at, stop)
    add_type(r, { kind = "other" }, set.order, take(r, 2))
    r.items[1].doubt = string.format("nothing is known of the type %04x", type)
    add(r, "data", take(r, left(r)))
    return message_of(r, { kind = "other" })
end

read_message = function(set, bodies, tvb, at, stop)
    local least = set.order and 2 or 0
    if stop - at < least then return nil, stop - at .. " bytes are too few for a message" end
    local type_range = set.order and tvb(at, 2)
    local type = type_range and (set.order == "little" and type_range:le_uint() or type_range:uint())
    local message, reason = read_rows(set, type, bodies, tvb, at, stop)
    if message or reason or not set.order then return message, reason end
    return read_other(set, type, tvb, at, stop)
end

local function read_head(set, tvb, stop)
    local r = reader(tvb, 0, stop)
    local done, reason = read_parts(r, set.head or {})
    if not done then return nil, stop .. " bytes are too few for a message, or " .. reason end
    return r
end

-- The whole of `tvb` as a message of that direction: up, down, command, report, discovery_request, discovery_answer.
-- Nothing, and the reason, where it is none.
function M.read(direction, tvb)
    local set = layouts[direction]
    local downwards = direction == "down" or direction == "command"
    local head, reason = read_head(set, tvb, tvb:len())
    if not head then return nil, reason end
    local message
    message, reason = read_message(set, downwards and layouts.bodies_down or layouts.bodies_up, tvb, head.at, tvb:len())
    if not message then return nil, reason end
    message.head = head.items
    return message
end

-- The value of a message's own field; nothing when it does not have it.
function M.find(message, name)
    for _, item in ipairs(message.items) do
        if item.name == name then return item end
    end
end

return M
