#include "client/client.h"

#include "core/daemon_state.h"
#include "core/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59 // Linux 4.13; older C libraries lack the name
#endif

bool client_allowed(const client_identity &peer, uid_t self, const gid_t *group) {
    if (peer.uid == 0 || peer.uid == self)
        return true;
    if (group == nullptr)
        return false;
    if (peer.gid == *group)
        return true;
    for (size_t i = 0; i < peer.group_count; ++i)
        if (peer.groups[i] == *group)
            return true;
    return false;
}

bool client_group_resolve(const char *text, gid_t *gid) {
    if (text[0] == '\0')
        return false;
    size_t digits = strspn(text, "0123456789");
    if (text[digits] == '\0') {
        errno = 0;
        unsigned long number = strtoul(text, nullptr, 10);
        // (gid_t)-1 means "no group" to the kernel; nobody can be in it.
        if (errno != 0 || digits > 10 || number >= static_cast<gid_t>(-1))
            return false;
        *gid = static_cast<gid_t>(number);
        return true;
    }
    // Only the server thread asks, so one buffer serves every look-up.
    static char buf[16384];
    group entry;
    group *found = nullptr;
    if (getgrnam_r(text, &entry, buf, sizeof buf, &found) != 0 || found == nullptr)
        return false;
    *gid = found->gr_gid;
    return true;
}

bool client_admit(int fd, client_peer *out) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) {
        log_printf("Client refused: no credentials\n");
        return false;
    }
    out->uid = cred.uid;
    out->gid = cred.gid;
    out->group_count = 0;
    // A process in more groups than this is judged by its primary group alone.
    socklen_t groups_len = sizeof out->groups;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, out->groups, &groups_len) == 0)
        out->group_count = groups_len / sizeof out->groups[0];
    client_identity peer{out->uid, out->gid, out->groups, out->group_count};
    if (client_allowed(peer, geteuid(), nullptr))
        return true;
    const char *group_text = state().client_group;
    gid_t group = 0;
    bool has_group = client_group_resolve(group_text, &group);
    if (group_text[0] != '\0' && !has_group)
        log_printf("client_group '%s' is not a group\n", group_text);
    if (has_group && client_allowed(peer, geteuid(), &group))
        return true;
    log_printf("Client refused: uid %d\n", static_cast<int>(cred.uid));
    return false;
}
