#pragma once
// Owning handles for libnl objects, shared by the Linux files of this folder.
#include <netlink/cache.h>
#include <netlink/msg.h>
#include <netlink/socket.h>

#include <memory>

namespace os::netlink {

struct SocketFree {
    void operator()(nl_sock* s) const noexcept { nl_socket_free(s); }
};
struct CacheFree {
    void operator()(nl_cache* c) const noexcept { nl_cache_free(c); }
};
struct MessageFree {
    void operator()(nl_msg* m) const noexcept { nlmsg_free(m); }
};

using Socket = std::unique_ptr<nl_sock, SocketFree>;
using Cache = std::unique_ptr<nl_cache, CacheFree>;
using Message = std::unique_ptr<nl_msg, MessageFree>;

}  // namespace os::netlink
