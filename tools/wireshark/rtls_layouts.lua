-- Written by make-layouts from the tables of docs/decode.md: what each message looks like.
-- A part is a field: its form, its bytes, their order, the unit. Change libs/decode, then write it anew.

local range_req = {
    { name = "data", as = "bytes" },
}

local ping = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "data", as = "bytes" },
}

local heartbeat = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "long_addr", as = "bytes", width = 8 },
    { name = "parent_addr", as = "bytes", width = 8 },
    { name = "sw_version", as = "identifier", width = 4, order = "little" },
    { name = "pos_X", as = "signed", width = 4, order = "little" },
    { name = "pos_Y", as = "signed", width = 4, order = "little" },
    { name = "pos_Z", as = "signed", width = 4, order = "little" },
}

local generic_server_req = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "little", unit = "bytes" },
    { name = "sub_command", as = "body" },
    { name = "extra", as = "rest" },
}

local sensor = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "little", unit = "bytes" },
    { name = "data", as = "bytes" },
    { name = "extra", as = "rest" },
}

local messages = {
    order = "little",
    others = true,
    rows = {
        { kind = "heartbeat", parts = heartbeat, type = 0x0104, flags = { "ack_requested", "direct_mask" } },
        { kind = "node_announce", parts = heartbeat, type = 0x010F, flags = { "ack_requested", "direct_mask" } },
        { kind = "generic_server_req", parts = generic_server_req, type = 0x010E, flags = { "ack_requested", "direct_mask" } },
        { kind = "sensor", parts = sensor, type = 0x0116, flags = { "ack_requested", "direct_mask" } },
    },
}

local nwk_data_ind = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "little", unit = "bytes" },
    { name = "message", as = "message", messages = messages },
    { name = "mac", as = "bytes", width = 8 },
    { name = "ipaddr", as = "address", width = 16 },
}

local panid_req = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "ieee_addr", as = "bytes", width = 8 },
}

local announce_root = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "ieee_addr", as = "bytes", width = 8 },
    { name = "rplPrefix", as = "identifier", width = 2, order = "little" },
    { name = "rpl_version", as = "number", width = 1 },
}

local heartbeat_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "long_addr", as = "bytes", width = 8 },
    { name = "parent_addr", as = "bytes", width = 8 },
    { name = "sw_version", as = "identifier", width = 4, order = "little" },
    { name = "pos_X", as = "signed", width = 4, order = "little" },
    { name = "pos_Y", as = "signed", width = 4, order = "little" },
    { name = "pos_Z", as = "signed", width = 4, order = "little" },
    { name = "bridge_mac", as = "bytes", width = 8 },
    { name = "ipaddr", as = "address", width = 16 },
}

local generic_server_req_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "little", unit = "bytes" },
    { name = "sub_command", as = "body" },
    { name = "ipaddr", as = "address", width = 16 },
    { name = "extra", as = "rest" },
}

local sensor_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "little", unit = "bytes" },
    { name = "data", as = "bytes" },
    { name = "ipaddr", as = "address", width = 16 },
    { name = "extra", as = "rest" },
}

local messages_in_2 = {
    order = "little",
    others = true,
    rows = {
        { kind = "range_req", parts = range_req, type = 0x2107, flags = { "ack_requested" } },
        { kind = "range_resp", parts = range_req, type = 0x2207, flags = { "ack_requested" } },
        { kind = "ping", parts = ping, type = 0x0000 },
        { kind = "nwk_data_ind", parts = nwk_data_ind, type = 0x0100, flags = { "ack_requested", "direct_mask" }, least = 30 },
        { kind = "trf2srv_via_client", parts = nwk_data_ind, type = 0x0A00, flags = { "ack_requested", "direct_mask" }, least = 30 },
        { kind = "panid_req", parts = panid_req, type = 0x0101, flags = { "ack_requested", "direct_mask" } },
        { kind = "announce_root", parts = announce_root, type = 0x0103, flags = { "ack_requested", "direct_mask" } },
        { kind = "heartbeat", parts = heartbeat_in_2, type = 0x0104, flags = { "ack_requested", "direct_mask" } },
        { kind = "node_announce", parts = heartbeat_in_2, type = 0x010F, flags = { "ack_requested", "direct_mask" } },
        { kind = "generic_server_req", parts = generic_server_req_in_2, type = 0x010E, flags = { "ack_requested", "direct_mask" } },
        { kind = "sensor", parts = sensor_in_2, type = 0x0116, flags = { "ack_requested", "direct_mask" } },
        { kind = "panid_resp", parts = range_req, type = 0x0102, flags = { "ack_requested", "direct_mask" } },
        { kind = "sensor_ind", parts = range_req, type = 0x0106, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_resp", parts = range_req, type = 0x0107, flags = { "ack_requested", "direct_mask" } },
        { kind = "mobile_pos_ind", parts = range_req, type = 0x010C, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_ack", parts = range_req, type = 0x0117, flags = { "ack_requested", "direct_mask" } },
        { kind = "update_req", parts = range_req, type = 0x0119, flags = { "ack_requested", "direct_mask" } },
        { kind = "emergency_ind", parts = range_req, type = 0x011A, flags = { "ack_requested", "direct_mask" } },
        { kind = "range_report_ind", parts = range_req, type = 0x0205, flags = { "ack_requested", "direct_mask" } },
        { kind = "mobile_pos_ind_new", parts = range_req, type = 0x020C, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_req", parts = range_req, type = 0x0807, flags = { "ack_requested", "direct_mask" } },
        { kind = "diag_req", parts = range_req, type = 0x0808, flags = { "ack_requested", "direct_mask" } },
        { kind = "link_qual_req", parts = range_req, type = 0x0809, flags = { "ack_requested", "direct_mask" } },
        { kind = "link_qual_resp", parts = range_req, type = 0x080A, flags = { "ack_requested", "direct_mask" } },
        { kind = "loopback_req", parts = range_req, type = 0x080B, flags = { "ack_requested", "direct_mask" } },
        { kind = "loopback_resp", parts = range_req, type = 0x080C, flags = { "ack_requested", "direct_mask" } },
    },
}

local wrap_ts = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "number", width = 2, order = "little", unit = "bytes" },
    { name = "seconds", as = "number", width = 4, order = "big", unit = "s" },
    { name = "fraction", as = "number", width = 2, order = "big", unit = "1/65536 s" },
    { name = "message", as = "message", messages = messages_in_2 },
}

local messages_in_3 = {
    order = "little",
    others = false,
    rows = {
        { kind = "ping", parts = ping, type = 0x0000 },
    },
}

local wrap_ts_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "number", width = 2, order = "little", unit = "bytes" },
    { name = "seconds", as = "number", width = 4, order = "big", unit = "s" },
    { name = "fraction", as = "number", width = 2, order = "big", unit = "1/65536 s" },
    { name = "message", as = "message", messages = messages_in_3 },
}

local vr_panid_resp = {
    { name = "rplPrefix", as = "identifier", width = 2, order = "little" },
    { name = "rpl_version", as = "number", width = 1 },
}

local update_cmd = {
    { name = "seqNo", as = "number", width = 1 },
}

local rest_ack = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "ipaddr", as = "address", width = 16 },
}

local conf_node_req = {
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "pos_X", as = "signed", width = 4, order = "by role" },
    { name = "pos_Y", as = "signed", width = 4, order = "by role" },
    { name = "pos_Z", as = "signed", width = 4, order = "by role" },
    { name = "ipaddr", as = "address", width = 16 },
}

local generic_req = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "sub_command", as = "body" },
    { name = "ipaddr", as = "address", width = 16 },
}

local sensor_req = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "data", as = "bytes" },
    { name = "ipaddr", as = "address", width = 16 },
}

local conf_node_req_in_2 = {
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "pos_X", as = "signed", width = 4, order = "by role" },
    { name = "pos_Y", as = "signed", width = 4, order = "by role" },
    { name = "pos_Z", as = "signed", width = 4, order = "by role" },
}

local generic_req_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "sub_command", as = "body" },
}

local sensor_req_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "data", as = "bytes" },
}

local messages_in_4 = {
    order = "little",
    others = false,
    rows = {
        { kind = "conf_node_req", parts = conf_node_req_in_2, type = 0x0804 },
        { kind = "generic_req", parts = generic_req_in_2, type = 0x080E },
        { kind = "sensor_req", parts = sensor_req_in_2, type = 0x0815 },
        { kind = "conf_sensor_req", parts = sensor_req_in_2, type = 0x0816 },
        { kind = "tdoa_sched_conf_req", parts = sensor_req_in_2, type = 0x0817 },
    },
}

local nwk_data_req = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "message", as = "message", messages = messages_in_4 },
    { name = "mac", as = "bytes", width = 8 },
    { name = "ipaddr", as = "address", width = 16 },
}

local nwk_data_req_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "p_len", as = "length", width = 2, order = "big", unit = "bytes", beside = 8 },
    { name = "opaque", as = "bytes" },
}

local messages_in_5 = {
    order = "little",
    others = false,
    rows = {
        { kind = "nwk_data_req", parts = nwk_data_req_in_2, type = 0x0800 },
    },
}

local nwk_data_req_in_3 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "message", as = "message", messages = messages_in_5 },
    { name = "ipaddr", as = "address", width = 16 },
}

local nwk_data_req_in_4 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "p_len", as = "length", width = 2, order = "big", unit = "bytes", beside = 8 },
    { name = "opaque", as = "bytes" },
    { name = "ipaddr", as = "address", width = 16 },
}

local ota_upload_fw = {
    { name = "git_ver", as = "identifier", width = 4, order = "big" },
    { name = "crc32", as = "identifier", width = 4, order = "big" },
    { name = "len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "url", as = "text" },
}

local fw_image_avail_ind = {
    { name = "sh1", as = "identifier", width = 4, order = "big" },
    { name = "crc32", as = "identifier", width = 4, order = "big" },
    { name = "len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "url", as = "text" },
}

local nwk_data_req_in_5 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "p_len", as = "length", width = 2, order = "big", unit = "bytes", beside = 8 },
    { name = "opaque", as = "bytes" },
    { name = "mac", as = "bytes", width = 8 },
}

local conf_node_req_in_3 = {
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "pos_X", as = "signed", width = 4, order = "big" },
    { name = "pos_Y", as = "signed", width = 4, order = "big" },
    { name = "pos_Z", as = "signed", width = 4, order = "big" },
    { name = "long_addr", as = "bytes", width = 8 },
}

local generic_req_in_3 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "sub_command", as = "body" },
    { name = "mac", as = "bytes", width = 8 },
}

local rest_ack_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "long_addr", as = "bytes", width = 8 },
}

local sensor_req_in_3 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "total_len", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "data", as = "bytes" },
    { name = "mac", as = "bytes", width = 8 },
}

local announce_root_in_2 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "ieee_addr", as = "bytes", width = 8 },
    { name = "rplPrefix", as = "identifier", width = 2, order = "big" },
}

local heartbeat_in_3 = {
    { name = "seqNo", as = "number", width = 1 },
    { name = "reporting_freq", as = "number", width = 1, unit = "s" },
    { name = "ranging_freq", as = "number", width = 1 },
    { name = "node_role", as = "role", width = 1 },
    { name = "sublocation_id", as = "number", width = 1 },
    { name = "long_addr", as = "bytes", width = 8 },
    { name = "parent_addr", as = "bytes", width = 8 },
    { name = "sw_version", as = "identifier", width = 4, order = "big" },
    { name = "pos_X", as = "signed", width = 4, order = "big" },
    { name = "pos_Y", as = "signed", width = 4, order = "big" },
    { name = "pos_Z", as = "signed", width = 4, order = "big" },
    { name = "bridge_mac", as = "bytes", width = 8 },
}

local discovery_echo = {
    { name = "content", as = "bytes", width = 6 },
}

local discovery_address = {
    { name = "command", as = "number", width = 1, least = 1, most = 1 },
    { name = "choice", as = "bytes", width = 8 },
}

local discovery_echo_in_2 = {
    { name = "address", as = "address", width = 4 },
    { name = "port", as = "number", width = 2, order = "big" },
}

local discovery_address_in_2 = {
    { name = "command", as = "number", width = 1, least = 1, most = 1 },
    { name = "choice", as = "bytes", width = 8 },
    { name = "address", as = "address", width = 4 },
    { name = "port", as = "number", width = 2, order = "big" },
}

local route_request = {
    { name = "reporter", as = "bytes", width = 6 },
    { name = "reporter_skipped", as = "bytes", width = 2 },
    { name = "requesters", as = "entries", entry = { { name = "requesters.mac", as = "bytes", width = 6 }, { name = "requesters.mac_skipped", as = "bytes", width = 1 }, { name = "requesters.lqi", as = "number", width = 1 } } },
    { name = "payload_rest", as = "rest" },
}

local ota_page = {
    { name = "git_id", as = "identifier", width = 4, order = "big" },
    { name = "crc32", as = "identifier", width = 4, order = "big" },
    { name = "page_size", as = "number", width = 2, order = "big", unit = "bytes" },
    { name = "page_number", as = "number", width = 2, order = "big" },
}

local ul_tdoa = {
    { name = "tag_mac", as = "bytes", width = 6 },
    { name = "pe_seq_no", as = "number", width = 2, order = "big" },
    { name = "responder_mac", as = "bytes", width = 6 },
    { name = "reporter_mac", as = "bytes", width = 6 },
    { name = "range_mm", as = "signed", width = 4, order = "big", unit = "mm" },
    { name = "tag_lqi", as = "number", width = 1 },
    { name = "resp_anchor_lqi", as = "number", width = 1 },
    { as = "optional", width = 10 },
    { name = "board_version", as = "number", width = 1 },
    { name = "board_revision", as = "number", width = 1 },
    { name = "flags", as = "identifier", width = 2, order = "big" },
    { name = "firmware_id", as = "identifier", width = 4, order = "big" },
    { name = "batt_voltage", as = "number", width = 2, order = "big" },
    { as = "optional", width = 1 },
    { name = "percent_of_charge", as = "number", width = 1, unit = "%" },
    { name = "payload_rest", as = "rest" },
}

local range_report = {
    { name = "ranges", as = "entries", entry = { { name = "ranges.short_mac", as = "bytes", width = 2 }, { name = "ranges.distance", as = "number", width = 4, order = "big", unit = "mm" }, { name = "ranges.quality", as = "number", width = 2, order = "big" } } },
    { name = "payload_rest", as = "rest" },
}

local reboot = {
    { name = "parameter_len", as = "number", width = 2, order = "big", unit = "bytes" },
    { name = "parameter", as = "bytes", width = 2 },
}

local ota_set = {
    { name = "body_head", as = "bytes", width = 1 },
    { name = "description_size", as = "number", width = 1, unit = "bytes" },
    { name = "git_ver", as = "identifier", width = 4, order = "big" },
    { name = "crc32", as = "identifier", width = 4, order = "big" },
    { name = "image_size", as = "number", width = 4, order = "big", unit = "bytes" },
    { as = "optional", width = 2 },
    { name = "source", as = "bytes", width = 2 },
}

local ota_page_in_2 = {
    { name = "git_id", as = "identifier", width = 4, order = "big" },
    { name = "crc32", as = "identifier", width = 4, order = "big" },
    { name = "page_size", as = "length", width = 2, order = "big", unit = "bytes" },
    { name = "page_number", as = "number", width = 2, order = "big" },
    { name = "page", as = "bytes" },
}

local layouts = {}

layouts.up = {
    order = "little",
    others = true,
    rows = {
        { kind = "range_req", parts = range_req, type = 0x2107, flags = { "ack_requested" } },
        { kind = "range_resp", parts = range_req, type = 0x2207, flags = { "ack_requested" } },
        { kind = "ping", parts = ping, type = 0x0000 },
        { kind = "nwk_data_ind", parts = nwk_data_ind, type = 0x0100, flags = { "ack_requested", "direct_mask" }, least = 30 },
        { kind = "trf2srv_via_client", parts = nwk_data_ind, type = 0x0A00, flags = { "ack_requested", "direct_mask" }, least = 30 },
        { kind = "panid_req", parts = panid_req, type = 0x0101, flags = { "ack_requested", "direct_mask" } },
        { kind = "announce_root", parts = announce_root, type = 0x0103, flags = { "ack_requested", "direct_mask" } },
        { kind = "heartbeat", parts = heartbeat_in_2, type = 0x0104, flags = { "ack_requested", "direct_mask" } },
        { kind = "node_announce", parts = heartbeat_in_2, type = 0x010F, flags = { "ack_requested", "direct_mask" } },
        { kind = "generic_server_req", parts = generic_server_req_in_2, type = 0x010E, flags = { "ack_requested", "direct_mask" } },
        { kind = "sensor", parts = sensor_in_2, type = 0x0116, flags = { "ack_requested", "direct_mask" } },
        { kind = "panid_resp", parts = range_req, type = 0x0102, flags = { "ack_requested", "direct_mask" } },
        { kind = "sensor_ind", parts = range_req, type = 0x0106, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_resp", parts = range_req, type = 0x0107, flags = { "ack_requested", "direct_mask" } },
        { kind = "mobile_pos_ind", parts = range_req, type = 0x010C, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_ack", parts = range_req, type = 0x0117, flags = { "ack_requested", "direct_mask" } },
        { kind = "update_req", parts = range_req, type = 0x0119, flags = { "ack_requested", "direct_mask" } },
        { kind = "emergency_ind", parts = range_req, type = 0x011A, flags = { "ack_requested", "direct_mask" } },
        { kind = "range_report_ind", parts = range_req, type = 0x0205, flags = { "ack_requested", "direct_mask" } },
        { kind = "mobile_pos_ind_new", parts = range_req, type = 0x020C, flags = { "ack_requested", "direct_mask" } },
        { kind = "video_req", parts = range_req, type = 0x0807, flags = { "ack_requested", "direct_mask" } },
        { kind = "diag_req", parts = range_req, type = 0x0808, flags = { "ack_requested", "direct_mask" } },
        { kind = "link_qual_req", parts = range_req, type = 0x0809, flags = { "ack_requested", "direct_mask" } },
        { kind = "link_qual_resp", parts = range_req, type = 0x080A, flags = { "ack_requested", "direct_mask" } },
        { kind = "loopback_req", parts = range_req, type = 0x080B, flags = { "ack_requested", "direct_mask" } },
        { kind = "loopback_resp", parts = range_req, type = 0x080C, flags = { "ack_requested", "direct_mask" } },
        { kind = "wrap_ts", parts = wrap_ts, type = 0x0200, least = 17 },
    },
}

layouts.down = {
    order = "little",
    others = false,
    rows = {
        { kind = "ping", parts = ping, type = 0x0000 },
        { kind = "wrap_ts", parts = wrap_ts_in_2, type = 0x0200, least = 17 },
        { kind = "vr_panid_resp", parts = vr_panid_resp, type = 0x8102 },
        { kind = "update_cmd", parts = update_cmd, type = 0x0118 },
        { kind = "rest_ack", parts = rest_ack, type = 0x0810 },
        { kind = "conf_node_req", parts = conf_node_req, type = 0x0804 },
        { kind = "generic_req", parts = generic_req, type = 0x080E },
        { kind = "sensor_req", parts = sensor_req, type = 0x0815 },
        { kind = "conf_sensor_req", parts = sensor_req, type = 0x0816 },
        { kind = "tdoa_sched_conf_req", parts = sensor_req, type = 0x0817 },
        { kind = "nwk_data_req", parts = nwk_data_req, type = 0x0800, flags = { "direct_mask" } },
        { kind = "nwk_data_req", parts = nwk_data_req_in_3, type = 0x0800, flags = { "direct_mask" } },
        { kind = "nwk_data_req", parts = nwk_data_req_in_4, type = 0x0800 },
    },
}

layouts.command = {
    order = "big",
    others = true,
    rows = {
        { kind = "ota_upload_fw", parts = ota_upload_fw, type = 0x0012, least = 13 },
        { kind = "fw_image_avail_ind", parts = fw_image_avail_ind, type = 0x080D, least = 14 },
        { kind = "nwk_data_req", parts = nwk_data_req_in_5, type = 0x0800 },
        { kind = "conf_node_req", parts = conf_node_req_in_3, type = 0x0804 },
        { kind = "generic_req", parts = generic_req_in_3, type = 0x080E },
        { kind = "rest_ack", parts = rest_ack_in_2, type = 0x0810 },
        { kind = "sensor_req", parts = sensor_req_in_3, type = 0x0815 },
        { kind = "conf_sensor_req", parts = sensor_req_in_3, type = 0x0816 },
        { kind = "tdoa_sched_conf_req", parts = sensor_req_in_3, type = 0x0817 },
    },
}

layouts.report = {
    order = "big",
    others = true,
    head = { { name = "seconds", as = "number", width = 4, order = "big", unit = "s" }, { name = "milliseconds", as = "number", width = 2, order = "big", unit = "ms", least = 0, most = 999 } },
    rows = {
        { kind = "announce_root", parts = announce_root_in_2, type = 0x0103 },
        { kind = "heartbeat", parts = heartbeat_in_3, type = 0x0104 },
        { kind = "node_announce", parts = heartbeat_in_3, type = 0x010F },
        { kind = "generic_server_req", parts = generic_req_in_3, type = 0x010E },
        { kind = "sensor", parts = sensor_req_in_3, type = 0x0116 },
    },
}

layouts.discovery_request = {
    others = false,
    rows = {
        { kind = "discovery_echo", parts = discovery_echo },
        { kind = "discovery_address", parts = discovery_address },
    },
}

layouts.discovery_answer = {
    others = false,
    rows = {
        { kind = "discovery_echo", parts = discovery_echo_in_2 },
        { kind = "discovery_address", parts = discovery_address_in_2 },
    },
}

layouts.bodies_up = {
    rows = {
        { kind = "route_request", parts = route_request, type = 0x000A },
        { kind = "ota_page", parts = ota_page, type = 0x0010 },
        { kind = "ul_tdoa", parts = ul_tdoa, type = 0x0028 },
        { kind = "range_report", parts = range_report, type = 0x0030 },
    },
}

layouts.bodies_down = {
    rows = {
        { kind = "reboot", parts = reboot, type = 0x0001 },
        { kind = "ota_set", parts = ota_set, type = 0x000E },
        { kind = "ota_page", parts = ota_page_in_2, type = 0x0010 },
        { kind = "ota_apply", parts = {  }, type = 0x0011 },
    },
}

return layouts
