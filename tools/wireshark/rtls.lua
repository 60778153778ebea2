-- Wireshark's dissectors for the links of an RTLS gateway: bridges and servers (TCP), discovery (UDP),
-- recordings of its tap.
-- docs/wireshark.md tells how to install and use them.

-- Wireshark runs each *.lua that it finds, in any order and from folders that are on no path: what this is made of has
-- another ending.
local here = debug.getinfo(1, "S").source:match("^@?(.*[/\\])") or ""
package.path = here .. "?.module;" .. package.path

local tree_of = require("rtls_tree")
local conversation = require("rtls_conversation")
local tap_of = require("rtls_tap")
local zmtp = require("rtls_zmtp")

local link = Proto("rtlsgw", "RTLS gateway link")
local discovery = Proto("rtlsgw_discovery", "RTLS gateway discovery")
local tap = Proto("rtls_tap", "RTLS gateway tap") -- recordings name it
tree_of.make(link)
tap_of.make(tap)
local upstream = Proto("rtlsgw_upstream", "RTLS gateway upstream")
zmtp.make(upstream)

link.prefs.win_ports = Pref.range("WIN ports", "4001", "TCP ports at which gateways serve bridges", 65535)
link.prefs.discovery_ports = Pref.range("Discovery ports", "4002", "UDP ports at which gateways answer devices", 65535)

upstream.prefs.proxy_ports = Pref.range("Proxy ports", "5555", "TCP ports at which proxies publish commands", 65535)
upstream.prefs.proxy_input_ports = Pref.range("Proxy input ports", "5556", "TCP ports that take management lines", 65535)
upstream.prefs.handler_ports = Pref.range("Handler ports", "5557", "TCP ports that take reports", 65535)

local tcp_stream = Field.new("tcp.stream")

-- Whether "4001,5000-5010" has the port.
local function has(ports, port)
    for first, last in tostring(ports):gmatch("(%d+)%-?(%d*)") do
        if port >= tonumber(first) and port <= tonumber(last ~= "" and last or first) then return true end
    end
    return false
end

-- To the gateway or from it; where neither port is known ("Decode As"), the one that brought the packet here is.
local function is_request(ports, pinfo)
    if has(ports, pinfo.dst_port) then return true end
    return not has(ports, pinfo.src_port) and pinfo.dst_port == pinfo.match_uint
end

local function set_columns(pinfo, protocol, text)
    pinfo.cols.protocol = protocol
    pinfo.cols.info:set(text .. " ")
    pinfo.cols.info:fence()
end

-- TCP's own reassembly brings what is pending again, with more behind it.
local function wait_for(pending, tvb, pinfo)
    if pending > 0 then
        pinfo.desegment_offset = tvb:len() - pending
        pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
    end
    return tvb:len()
end

function link.dissector(tvb, pinfo, tree)
    local direction = is_request(link.prefs.win_ports, pinfo) and "up" or "down"
    local titles, pending = tree_of.add_stream(tree, tvb, direction, pinfo, tcp_stream().value)
    if titles ~= "" then set_columns(pinfo, "RTLS", direction .. ": " .. titles) end
    return wait_for(pending, tvb, pinfo)
end

local servers = { "proxy", "proxy_input", "handler" }

-- Which server a packet goes to or comes from, and whether it goes there.
local function server_of(pinfo)
    for _, name in ipairs(servers) do
        local ports = upstream.prefs[name .. "_ports"]
        if has(ports, pinfo.dst_port) then return name, true end
        if has(ports, pinfo.src_port) then return name, false end
    end
end

function upstream.dissector(tvb, pinfo, tree)
    local server, goes_up = server_of(pinfo)
    if not server then return 0 end
    local titles, pending = zmtp.add_stream(tree, tvb, pinfo, server, goes_up)
    if titles ~= "" then set_columns(pinfo, "RTLS", server .. ": " .. titles) end
    return wait_for(pending, tvb, pinfo)
end

function discovery.dissector(tvb, pinfo, tree)
    local direction = is_request(link.prefs.discovery_ports, pinfo) and "discovery_request" or "discovery_answer"
    local title = tree_of.add_message(tree, tvb, direction, pinfo)
    set_columns(pinfo, "RTLS", direction .. ": " .. title)
    return tvb:len()
end

function tap.dissector(tvb, pinfo, tree)
    set_columns(pinfo, "RTLS tap", tap_of.add(tree, tvb, pinfo))
    return tvb:len()
end

function link.init()
    conversation.reset()
    tap_of.reset()
end

local registered = {} -- the ports, by preference

local function register(table_name, prefs, name, dissector)
    local ports_table, before = DissectorTable.get(table_name), registered[name]
    if before and before ~= "" then ports_table:remove(before, dissector) end
    registered[name] = tostring(prefs[name])
    if registered[name] ~= "" then ports_table:add(registered[name], dissector) end
end

local function register_link()
    register("tcp.port", link.prefs, "win_ports", link)
    register("udp.port", link.prefs, "discovery_ports", discovery)
end

local function register_upstream()
    for _, name in ipairs(servers) do register("tcp.port", upstream.prefs, name .. "_ports", upstream) end
end

link.prefs_changed = register_link
upstream.prefs_changed = register_upstream
register_link()
register_upstream()
