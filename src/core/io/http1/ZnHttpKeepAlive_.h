#pragma once

#include <string_view>

namespace zn::http {

/// For how many milliseconds a connection may wait for its next request after a response with this head, at most
/// `longestMs`: one second less than the server says. 0: the connection must be closed, because one of the two wants it
/// so, or because the head leaves doubt about where the response ends.
///
/// Whoever takes the end of a response for another place than the server takes what follows, be it a body or a response
/// that nobody has asked for, for the answer to the next request. So everything counts as doubt here that another
/// reader might read in another way.
/// `head`: the status line and the headers with the empty line. Thread: any.
int keepAliveMs(std::string_view head, bool isHeadRequest, int longestMs);

} // namespace zn::http
