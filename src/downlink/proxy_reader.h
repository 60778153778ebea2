// proxy_reader - the proxy socket's reader: texts come in, commands go to the dispatcher.
//
// Threads    WIN server thread. Nothing waits, but what the command itself does.
// Bytes      A text is hex, two digits a byte, of the command as the server wrote it.
// Failures   A text that is no command, or longer than 256 KiB, is logged and dropped.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// zloop reader of the proxy socket: takes one text. Always 0.
int handle_pub_sub_proxy(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

} // namespace rtls
