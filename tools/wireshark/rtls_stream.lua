-- Cuts the bytes of a connection into frames: 0xF5 begins one, 0xF7 ends it, 0xF6 takes the next byte as it is.

local M = {}

local START, ESC, END = 0xF5, 0xF6, 0xF7
local start_byte, any_special = "\xF5", "[\xF5-\xF7]"

-- Positions count from 1, as those of strings do; `last` is included.
local function piece(as, first, last)
    return { as = as, first = first, last = last }
end

local function content_of(bytes, frame, has_escapes)
    local content = bytes:sub(frame.first + 1, frame.last - 1)
    return has_escapes and content:gsub("\xF6(.)", "%1") or content
end

local function finished(bytes, first, last, has_escapes)
    local frame = piece(last == first + 1 and "empty" or "frame", first, last)
    frame.has_escapes = has_escapes
    frame.content = content_of(bytes, frame, has_escapes)
    return frame
end

-- The frame that begins at `first`: what it is, or nothing when its end is not there.
local function frame_at(bytes, first)
    local at, has_escapes = first + 1, false
    while true do
        local special = bytes:find(any_special, at)
        if not special then return nil end
        local byte = bytes:byte(special)
        if byte == END then return finished(bytes, first, special, has_escapes) end
        if byte == START then return piece(special == first + 1 and "repeated" or "broken", first, special - 1) end
        if byte == ESC then has_escapes, at = true, special + 2 end
    end
end

-- Begins without an end wait for the frame behind them: TCP's reassembly would bring them twice.
local function from_first_begin(pieces, first)
    while #pieces > 0 and (pieces[#pieces].as == "broken" or pieces[#pieces].as == "repeated") do
        first = table.remove(pieces).first
    end
    return first
end

-- The pieces of `bytes`, and how many bytes at its end are a frame that goes on. A piece is a "frame" (with its content
-- without stuffing), or "empty", "repeated" (a begin and another), "broken" (a begin before the end), "outside".
function M.split(bytes)
    local pieces, at = {}, 1
    while at <= #bytes do
        local first = bytes:find(start_byte, at, true)
        if first ~= at then pieces[#pieces + 1] = piece("outside", at, (first or #bytes + 1) - 1) end
        if not first then return pieces, 0 end
        local next_piece = frame_at(bytes, first)
        if not next_piece then return pieces, #bytes - from_first_begin(pieces, first) + 1 end
        pieces[#pieces + 1] = next_piece
        at = next_piece.last + 1
    end
    return pieces, 0
end

return M
