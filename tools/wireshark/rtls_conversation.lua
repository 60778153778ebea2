-- Which message answers which: acknowledgements by sequence number and address, echoes by their bytes, pages of firmware
-- by image, number and address. Requests are kept from the first pass over a capture; what answers a request that is far
-- back shows it at once, and the request shows the answer from the second pass on.

local reader = require("rtls_reader")

local M = {}

local waiting, pairs_by_id -- by key: requests without an answer; by frame and key: a request and its answer

function M.reset()
    waiting, pairs_by_id = {}, {}
end
M.reset()

local function bytes_of(message, name)
    local item = message and reader.find(message, name)
    return item and item.range:raw()
end

local function is_set(message, name)
    local item = reader.find(message, name)
    return item and item.value
end

local acknowledged = { heartbeat = "record", node_announce = "record", generic_server_req = "payload", sensor = "payload" }

-- The address that the acknowledgement goes to. Of a payload behind another node it is what stands behind the payload:
-- the MAC, and the first half of the address.
local function address_of(message)
    local own = bytes_of(message, "ipaddr")
    local within = message.within
    if not own or not within then return acknowledged[message.kind] and own end
    if acknowledged[within.kind] == "payload" then return bytes_of(message, "mac") .. own:sub(1, 8) end
    return acknowledged[within.kind] and own
end

local function page_key(message)
    local request = message.within or message
    if request.sub_command ~= "ota_page" then return nil end
    return table.concat({ "page", bytes_of(request, "git_id"), bytes_of(request, "page_number"),
                          bytes_of(message, "ipaddr") or "" }, "|")
end

local function is_ping(message)
    return message.kind == "ping"
end

local function key_up(message, bytes)
    if is_ping(message) then return "ping|" .. bytes end
    local address = is_set(message, "ack_requested") and address_of(message)
    if address then return "ack|" .. bytes_of(message, "seqNo") .. address end
    return page_key(message)
end

local function key_down(message, bytes)
    if is_ping(message) then return "ping|" .. bytes end
    if message.kind == "rest_ack" then return "ack|" .. bytes_of(message, "seqNo") .. bytes_of(message, "ipaddr") end
    return page_key(message)
end

local function remember(id, key, frame, time)
    local request = { request = frame, time = time }
    pairs_by_id[id] = request
    waiting[key] = waiting[key] or {}
    table.insert(waiting[key], request)
end

-- The oldest that waits.
local function answer(id, key, frame, time)
    local request = waiting[key] and table.remove(waiting[key], 1)
    if not request then return end
    request.response, request.delay = frame, time - request.time
    pairs_by_id[id] = request
end

-- The pair that a message of the link is one half of: the frames `request` and `response`, and the `delay`. Either may be
-- missing. `stream` names the connection, `bytes` are the whole message's.
function M.pair_of(direction, message, bytes, stream, pinfo)
    local timed = message.kind == "wrap_ts" and message.within or message
    local key = direction == "up" and key_up(timed, bytes) or direction == "down" and key_down(timed, bytes)
    if not key then return nil end
    key = stream .. "|" .. key
    local id = direction .. pinfo.number .. "|" .. key
    if not pinfo.visited then
        (direction == "up" and remember or answer)(id, key, pinfo.number, pinfo.abs_ts)
    end
    return pairs_by_id[id]
end

return M
