// Sockets of the local family, in the current directory.
#include "every_call.h"
#include <sys/socket.h>
#include <sys/un.h>

ssize_t __recv_chk(int fd, void* pBuf, size_t count, size_t bufSize, int flags);
ssize_t __recvfrom_chk(int fd, void* pBuf, size_t count, size_t bufSize, int flags, struct sockaddr* pAddr,
                       socklen_t* pAddrLen);

static struct sockaddr_un g_name = {AF_UNIX, "listener"};
static struct sockaddr_un g_nobody = {AF_UNIX, "nobody"};
static char g_bytes[32];

#define ADDRESS(name) (const struct sockaddr*)&(name), sizeof(name)

static void NoteBytes(void)
{
    Note("  bytes %.*s\n", (int)sizeof(g_bytes), g_bytes);
    memset(g_bytes, 0, sizeof(g_bytes));
}

static void CallConnections(void)
{
    struct sockaddr_un peer;
    socklen_t length = sizeof(peer);
    int listener = CALL(socket, AF_UNIX, SOCK_STREAM, 0);
    CALL(socket, AF_UNIX, 77, 0);
    CALL(bind, listener, ADDRESS(g_name));
    CALL(bind, listener, ADDRESS(g_name));
    CALL(listen, listener, 4);
    CALL(listen, -1, 4);
    int first = CALL(socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    CALL(connect, first, ADDRESS(g_nobody));
    CALL(connect, first, ADDRESS(g_name));
    int second = CALL(socket, AF_UNIX, SOCK_STREAM, 0);
    CALL(connect, second, ADDRESS(g_name));
    int accepted = CALL(accept, listener, (struct sockaddr*)&peer, &length);
    CALL(accept, -1, NULL, NULL);
    Note("  address of %u bytes\n", length);
    int other = CALL(accept4, listener, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
    CALL(accept4, listener, NULL, NULL, 0x7777);
    Note("  non-blocking %d\n", CALL(fcntl, other, F_GETFL) & O_NONBLOCK);
    CALL(recv, other, g_bytes, sizeof(g_bytes), 0);
    CALL(close, first);
    CALL(recv, accepted, g_bytes, sizeof(g_bytes), 0);
    CALL(close, second);
    CALL(close, accepted);
    CALL(close, other);
    CALL(close, listener);
}

static void CallTransfers(const int* pEnds)
{
    struct iovec parts[2] = {{(char*)"one", 3}, {(char*)"four", 4}};
    struct iovec room = {g_bytes, sizeof(g_bytes)};
    struct msghdr message = {.msg_iov = parts, .msg_iovlen = 2};
    struct msghdr taken = {.msg_iov = &room, .msg_iovlen = 1};
    CALL(send, pEnds[0], "sent", 4, 0);
    CALL(send, -1, "sent", 4, 0);
    CALL(recv, pEnds[1], g_bytes, sizeof(g_bytes), MSG_PEEK);
    CALL(recv, pEnds[1], g_bytes, 2, MSG_TRUNC);
    NoteBytes();
    CALL(send, pEnds[0], "checked", 7, 0);
    CALL(__recv_chk, pEnds[1], g_bytes, 5, sizeof(g_bytes), 0);
    NoteBytes();
    CALL(sendto, pEnds[0], "to", 2, 0, NULL, 0);
    CALL(sendto, pEnds[0], "to", 2, 0, ADDRESS(g_nobody));
    CALL(recvfrom, pEnds[1], g_bytes, sizeof(g_bytes), 0, NULL, NULL);
    CALL(recvfrom, pEnds[1], g_bytes, sizeof(g_bytes), MSG_DONTWAIT, NULL, NULL);
    NoteBytes();
    CALL(sendto, pEnds[0], "seven arguments", 15, 0, NULL, 0);
    CALL(__recvfrom_chk, pEnds[1], g_bytes, 9, sizeof(g_bytes), 0, NULL, NULL);
    NoteBytes();
    CALL(sendmsg, pEnds[0], &message, 0);
    CALL(sendmsg, pEnds[0], (struct msghdr*)1, 0);
    CALL(recvmsg, pEnds[1], &taken, 0);
    CALL(recvmsg, pEnds[1], &taken, MSG_DONTWAIT);
    NoteBytes();
}

static void CallManyAtOnce(const int* pEnds)
{
    struct iovec parts[2] = {{(char*)"first", 5}, {(char*)"second", 6}};
    struct iovec rooms[2] = {{g_bytes, 8}, {g_bytes + 8, 8}};
    struct mmsghdr messages[2] = {{.msg_hdr = {.msg_iov = &parts[0], .msg_iovlen = 1}},
                                  {.msg_hdr = {.msg_iov = &parts[1], .msg_iovlen = 1}}};
    struct mmsghdr taken[2] = {{.msg_hdr = {.msg_iov = &rooms[0], .msg_iovlen = 1}},
                               {.msg_hdr = {.msg_iov = &rooms[1], .msg_iovlen = 1}}};
    CALL(sendmmsg, pEnds[0], messages, 2, 0);
    CALL(sendmmsg, -1, messages, 2, 0);
    CALL(recvmmsg, pEnds[1], taken, 2, 0, NULL);
    CALL(recvmmsg, pEnds[1], taken, 2, MSG_DONTWAIT, NULL);
    Note("  lengths %u %u, bytes %.5s %.6s\n", taken[0].msg_len, taken[1].msg_len, g_bytes, g_bytes + 8);
}

void CallSockets(void)
{
    int ends[2];
    CallConnections();
    CALL(socketpair, AF_UNIX, SOCK_DGRAM, 0, ends);
    CALL(socketpair, AF_INET, SOCK_DGRAM, 0, ends);
    CallTransfers(ends);
    CallManyAtOnce(ends);
    CALL(close, ends[0]);
    CALL(close, ends[1]);
}
