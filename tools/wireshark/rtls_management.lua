-- Reads the management lines that go to the proxy's input: "@win_management " and an object, written without freedom.

local M = {}

local mac = '"(%x%x%x%x%x%x%x%x%x%x%x%x)"'

-- The names of what a pattern captures, in its order: as text, number or hex number.
local ul_tdoa = {
    pattern = '^{"pe_seq_no":(%d+),"range_mm":(-?%d+),"tag":{"mac":' .. mac .. ',"lqi":(%d+)},"responder":{"mac":' .. mac ..
        ',"lqi":(%d+)},"reporter":{"mac":' .. mac .. "}(.*)}$",
    names = { "pe_seq_no", "range_mm", "tag_mac", "tag_lqi", "responder_mac", "resp_anchor_lqi", "reporter_mac" },
}
local board = {
    pattern = '^,"board_version":(%d+),"board_revision":(%d+),"flags":"(%x+)","firmware_id":"(%x+)","batt_voltage":(%d+)(.*)$',
    names = { "board_version", "board_revision", "flags", "firmware_id", "batt_voltage" },
}
local charge = { pattern = '^,"percent_of_charge":(%d+)(.*)$', names = { "percent_of_charge" } }

local hex_numbers = { flags = true, firmware_id = true }

-- A MAC's item gets its bytes at the end, all of a line's at once.
local function item_of(name, text, range)
    if name:find("mac$") or name == "reporter" then return { name = name, hex = text } end
    return { name = name, range = range, value = tonumber(text, hex_numbers[name] and 16 or 10) }
end

local function each_mac(items, with)
    for _, item in ipairs(items) do
        if item.hex then with(item) end
        if item.below then each_mac(item.below, with) end
    end
end

local function give_bytes(items)
    local digits = {}
    each_mac(items, function(item) digits[#digits + 1] = item.hex end)
    local tvb, at = ByteArray.new(table.concat(digits)):tvb("MACs of the line"), 0
    each_mac(items, function(item)
        item.range = tvb(at, 6)
        at = at + 6
    end)
end

-- Matches the text and adds an item for each capture; the return is the last one, which is what follows.
local function take(form, text, range, items)
    local found = { text:match(form.pattern) }
    if #found == 0 then return nil end
    for place, name in ipairs(form.names) do
        items[#items + 1] = item_of(name, found[place], range)
    end
    return found[#form.names + 1]
end

local function read_ul_tdoa(text, range, items)
    local rest = take(ul_tdoa, text, range, items)
    if rest and rest ~= "" then rest = take(board, rest, range, items) end
    if rest and rest ~= "" then rest = take(charge, rest, range, items) end
    return rest == ""
end

local function padded(text, digits)
    return string.format("%" .. digits .. "d", tonumber(text) or -1) == text
end

local function requester(address, lqi, range)
    return { name = "requester", range = range, below = {
        item_of("requesters.mac", address), item_of("requesters.lqi", lqi, range) } }
end

local function read_route_request(text, range, items)
    local reporter, list = text:match('^{"reporter":{"mac":' .. mac .. '},"requester":%[(.*)%]}$')
    if not reporter then return false end
    local requesters = {}
    local rest = ("," .. list):gsub(',{"mac":' .. mac .. ',"lqi":([ %d]+)}', function(address, lqi)
        if not padded(lqi, 3) then return nil end
        requesters[#requesters + 1] = requester(address, lqi, range)
        return ""
    end)
    items[#items + 1] = item_of("reporter", reporter)
    items[#items + 1] = { name = "requesters", range = range, below = requesters }
    return rest == "" and #requesters > 0
end

local readers = { route_request = { "route_request", read_route_request }, ul_tdoa_data = { "ul_tdoa", read_ul_tdoa } }

-- The whole of `tvb` as a line; nothing, and the reason, where it is none.
function M.read(tvb)
    local range = tvb()
    local seconds, milliseconds, name, object =
        range:raw():match('^@win_management {"ts":([ %d]+),"ms":([ %d]+),"([a-z_]+)":(.*)}$')
    local known = readers[name]
    if not known or not padded(seconds, 10) or not padded(milliseconds, 3) then return nil, "no gateway writes such a line" end
    local items = { { name = "kind", range = range, value = known[1] },
                    { name = "seconds", range = range, value = tonumber(seconds) },
                    { name = "milliseconds", range = range, value = tonumber(milliseconds) } }
    if not known[2](object, range, items) then return nil, known[1] .. ": no gateway writes such a line" end
    give_bytes(items)
    return { kind = known[1], items = items, head = {} }
end

return M
