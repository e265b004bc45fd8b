#include "far_end.h"

#include "board_util.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool fail(std::string *error, const std::string &what) {
    *error = what + ": " + errno_text();
    return false;
}

// A netlink request being built: the header, then attributes appended.
struct nl_message {
    alignas(nlmsghdr) char buf[1024] = {};
    nlmsghdr *hdr() { return reinterpret_cast<nlmsghdr *>(buf); }

    void *append(size_t len) {
        size_t at = NLMSG_ALIGN(hdr()->nlmsg_len);
        hdr()->nlmsg_len = static_cast<uint32_t>(at + NLMSG_ALIGN(len));
        return buf + at; // the 1024 bytes hold far more than the few attributes sent
    }
    rtattr *attr(unsigned short type, const void *data = nullptr, size_t len = 0) {
        rtattr *a = static_cast<rtattr *>(append(RTA_LENGTH(len)));
        a->rta_type = type;
        a->rta_len = static_cast<unsigned short>(RTA_LENGTH(len));
        if (len > 0)
            memcpy(RTA_DATA(a), data, len);
        return a;
    }
    void end(rtattr *nest) {
        nest->rta_len = static_cast<unsigned short>(buf + hdr()->nlmsg_len - reinterpret_cast<char *>(nest));
    }
};

// The veth pair: FAR_IFNAME here, `ifname` in the namespace `peer_ns`.
bool create_veth(const std::string &ifname, int peer_ns, std::string *error) {
    nl_message m;
    m.hdr()->nlmsg_len = NLMSG_LENGTH(0);
    m.hdr()->nlmsg_type = RTM_NEWLINK;
    m.hdr()->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
    static_cast<ifinfomsg *>(m.append(sizeof(ifinfomsg)))->ifi_family = AF_UNSPEC;
    m.attr(IFLA_IFNAME, FAR_IFNAME, strlen(FAR_IFNAME) + 1);
    rtattr *info = m.attr(IFLA_LINKINFO);
    m.attr(IFLA_INFO_KIND, "veth", 4);
    rtattr *data = m.attr(IFLA_INFO_DATA);
    rtattr *peer = m.attr(VETH_INFO_PEER);
    static_cast<ifinfomsg *>(m.append(sizeof(ifinfomsg)))->ifi_family = AF_UNSPEC;
    m.attr(IFLA_IFNAME, ifname.c_str(), ifname.size() + 1);
    uint32_t ns = static_cast<uint32_t>(peer_ns);
    m.attr(IFLA_NET_NS_FD, &ns, sizeof ns);
    m.end(peer);
    m.end(data);
    m.end(info);

    int s = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (s < 0 || send(s, m.buf, m.hdr()->nlmsg_len, 0) < 0) {
        if (s >= 0)
            close(s);
        return fail(error, "netlink request for the veth pair");
    }
    alignas(nlmsghdr) char reply[1024];
    ssize_t n = recv(s, reply, sizeof reply, 0);
    close(s);
    const nlmsghdr *r = reinterpret_cast<const nlmsghdr *>(reply);
    if (n < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr))) || r->nlmsg_type != NLMSG_ERROR)
        return fail(error, "netlink answer for the veth pair");
    int code = static_cast<const nlmsgerr *>(NLMSG_DATA(r))->error;
    if (code != 0) {
        errno = -code;
        return fail(error, "veth pair " + std::string(FAR_IFNAME) + " - " + ifname);
    }
    return true;
}

// Up, with `address`/24 when one is given (a name "far0:1" adds a second address).
bool configure(const std::string &name, const char *address, std::string *error) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq req{};
    strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
    bool ok = s >= 0;
    if (ok && address != nullptr) {
        sockaddr_in *in = reinterpret_cast<sockaddr_in *>(&req.ifr_addr);
        in->sin_family = AF_INET;
        inet_pton(AF_INET, address, &in->sin_addr);
        ok = ioctl(s, SIOCSIFADDR, &req) == 0;
        inet_pton(AF_INET, "255.255.255.0", &in->sin_addr);
        ok = ok && ioctl(s, SIOCSIFNETMASK, &req) == 0;
    }
    ok = ok && ioctl(s, SIOCGIFFLAGS, &req) == 0;
    req.ifr_flags = static_cast<short>(req.ifr_flags | IFF_UP);
    ok = ok && ioctl(s, SIOCSIFFLAGS, &req) == 0;
    if (s >= 0)
        close(s);
    return ok || fail(error, "configuring " + name);
}

uint16_t checksum(const uint8_t *data, size_t len) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
    if (len % 2 != 0)
        sum += static_cast<uint32_t>(data[len - 1] << 8);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

std::string hex(const uint8_t *data, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

} // namespace

far_end::~far_end() {
    if (icmp_ >= 0)
        close(icmp_);
}

bool far_end::build(const std::string &ifname, std::string *error) {
    int board_ns = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (board_ns < 0 || unshare(CLONE_NEWNET) != 0) {
        if (board_ns >= 0)
            close(board_ns);
        return fail(error, "network namespace of the far end");
    }
    // The far namespace lives on through the raw socket made in it, and dies
    // with the board: nothing else refers to it.
    bool ok = configure("lo", nullptr, error) && create_veth(ifname, board_ns, error) &&
              configure(FAR_IFNAME, FAR_ADDRESS, error) &&
              configure(std::string(FAR_IFNAME) + ":1", SILENT_ADDRESS, error);
    if (ok && !write_file("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1\n"))
        ok = fail(error, "icmp_echo_ignore_all of the far end");
    if (ok) {
        icmp_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMP);
        if (icmp_ < 0)
            ok = fail(error, "ICMP socket of the far end");
    }
    if (setns(board_ns, CLONE_NEWNET) != 0 && ok)
        ok = fail(error, "returning to the board's network namespace");
    close(board_ns);
    return ok && configure(ifname, MODULE_ADDRESS, error);
}

void far_end::serve() {
    uint8_t packet[4096];
    for (;;) {
        sockaddr_in from{};
        socklen_t from_len = sizeof from;
        ssize_t n = recvfrom(icmp_, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        size_t header = (packet[0] & 15u) * 4u;
        if (static_cast<size_t>(n) < header + 8 || packet[header] != 8)
            continue; // not an echo request: answers, errors
        in_addr source, destination;
        memcpy(&source, packet + 12, 4);
        memcpy(&destination, packet + 16, 4);
        uint8_t *icmp = packet + header;
        size_t len = static_cast<size_t>(n) - header;
        char src[INET_ADDRSTRLEN], dst[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &source, src, sizeof src);
        inet_ntop(AF_INET, &destination, dst, sizeof dst);
        append_record(record_path_, std::string(src) + " " + dst + " " + hex(icmp, len));
        if (!answering_ || strcmp(dst, FAR_ADDRESS) != 0)
            continue;
        icmp[0] = 0; // echo reply: identifier, sequence and data as asked
        icmp[2] = icmp[3] = 0;
        uint16_t sum = checksum(icmp, len);
        icmp[2] = static_cast<uint8_t>(sum >> 8);
        icmp[3] = static_cast<uint8_t>(sum & 0xff);
        sendto(icmp_, icmp, len, 0, reinterpret_cast<sockaddr *>(&from), sizeof from);
    }
}
