// proxy_reader - the proxy socket's reader: texts come in, commands go to the dispatcher.
//
// Threads    WIN server thread.
// Blocking   Nothing waits. A call takes as many texts as are there, up to 64, or 64 KiB of them, or a millisecond's:
//            waking up for each, and having the loop ask every socket for news, would cost several times what most
//            commands do.
// Bytes      A text is hex, two digits a byte, of the command as the server wrote it.
// Failures   A text that is no command, or longer than 256 KiB, is logged and dropped.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// zloop reader of the proxy socket: takes the texts that are there. Always 0.
int handle_pub_sub_proxy(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

} // namespace rtls
