// nl80211 over generic netlink: the family is resolved once (Load); a scan
// dumps the wireless interfaces, and an associated one carries the SSID of
// the network it is connected to.
#include <linux/nl80211.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>

#include "os/netlink_linux.h"
#include "os/utf8.h"
#include "os/wireless.h"

namespace os {

struct WirelessApi::Native {
    netlink::Socket socket;
    int family = -1;
};

const wchar_t* WirelessApi::LibraryName() noexcept { return L"nl80211"; }

WirelessApi::WirelessApi(std::wstring library) : library_(std::move(library)), native_(std::make_unique<Native>()) {}
WirelessApi::~WirelessApi() = default;

WirelessApi::LoadResult WirelessApi::Load() {
    LoadResult result;
    if (Complete()) {
        result.loaded = true;
        return result;
    }
    netlink::Socket socket(nl_socket_alloc());
    if (!socket) {
        result.error = NLE_NOMEM;
        return result;
    }
    if (int e = genl_connect(socket.get()); e < 0) {
        result.error = static_cast<uint32_t>(-e);
        return result;
    }
    const int family = genl_ctrl_resolve(socket.get(), WideToUtf8Lossy(library_).c_str());
    if (family < 0) {
        result.error = static_cast<uint32_t>(-family);
        return result;
    }
    native_->socket = std::move(socket);
    native_->family = family;
    result.loaded = true;
    return result;
}

bool WirelessApi::Complete() const noexcept { return native_->socket && native_->family >= 0; }

namespace {

int OnInterface(nl_msg* message, void* context) {
    auto& scan = *static_cast<WirelessScan*>(context);
    nlattr* attributes[NL80211_ATTR_MAX + 1] = {};
    if (genlmsg_parse(nlmsg_hdr(message), 0, attributes, NL80211_ATTR_MAX, nullptr) < 0) return NL_SKIP;
    WirelessInterface entry;
    if (attributes[NL80211_ATTR_IFNAME])
        entry.description = Utf8ToWideLossy(nla_get_string(attributes[NL80211_ATTR_IFNAME]));
    if (nlattr* ssid = attributes[NL80211_ATTR_SSID]) {
        entry.connected = true;
        WirelessNetwork network;
        network.connectable = true;
        network.flags = WirelessNetwork::kConnected;
        network.ssid.assign(static_cast<const char*>(nla_data(ssid)), static_cast<size_t>(nla_len(ssid)));
        entry.networks.push_back(std::move(network));
    }
    scan.interfaces.push_back(std::move(entry));
    return NL_OK;
}

}  // namespace

WirelessScan WirelessApi::Scan() {
    WirelessScan scan;
    if (!Complete()) {
        scan.failure = WirelessScan::Failure::kOpenHandle;
        scan.error = NLE_BAD_SOCK;
        return scan;
    }
    nl_sock* socket = native_->socket.get();
    netlink::Message message(nlmsg_alloc());
    if (!message || !genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, native_->family, 0, NLM_F_DUMP,
                                 NL80211_CMD_GET_INTERFACE, 0)) {
        scan.failure = WirelessScan::Failure::kOpenHandle;
        scan.error = NLE_NOMEM;
        return scan;
    }
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, &OnInterface, &scan);
    int e = nl_send_auto(socket, message.get());
    if (e >= 0) e = nl_recvmsgs_default(socket);
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
    if (e < 0) {
        scan.failure = WirelessScan::Failure::kEnumInterfaces;
        scan.error = static_cast<uint32_t>(-e);
        scan.interfaces.clear();
    }
    return scan;
}

}  // namespace os
