#pragma once
// The socket and libmicrohttpd plumbing that the list server and the
// report collector share.

#include <microhttpd.h>

#include <cstdarg>
#include <string>
#include <string_view>

namespace quarvel::server {

// A listening socket on `address`:`port` (an empty address: every one),
// non-blocking and close-on-exec; -1 when none binds. SO_REUSEADDR only
// lets a restarted server take the port back from connections lingering in
// TIME_WAIT; a port another server listens on stays its own.
int listenOn(const std::string& address, int port, int backlog);

// The port a listening socket is bound to; -1 when it cannot be told.
int boundPort(int fd);

// The connection's peer address as text ("127.0.0.1", "::1"); "?" when the
// library cannot tell it.
std::string clientAddress(MHD_Connection* connection);

// Whether an address text from clientAddress() is the loopback's.
bool isLoopback(std::string_view address);

// libmicrohttpd's MHD_OPTION_EXTERNAL_LOGGER: logs the library's message
// as one line, escaped, behind the server's name; `name` is a NUL-ended
// string that outlives the daemon ("serve", "collect").
void logLibraryMessage(void* name, const char* format, va_list arguments);

}  // namespace quarvel::server
