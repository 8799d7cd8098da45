// Sockets from address texts, the small operations on descriptors and socket
// addresses, and the choice of a multicast interface.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// The request to open_socket, and what it found. Zero it and fill it for one
// call.
struct socket_spec {
    unsigned writer : 1;         // the socket will send; a UDP sender is not bound
    unsigned passive : 1;        // bind and listen
    unsigned multicast : 1;      // set by the caller or by a multicast address; never cleared
    unsigned non_blocking : 1;   // non-blocking before bind or connect
    unsigned async_connect : 1;  // out: a non-blocking connect is under way
    unsigned defer_listen : 1;   // bind a TCP listener, the caller listens
    int family;                  // AF_UNSPEC, AF_INET, AF_INET6: hint in, family used out
    int socktype;                // SOCK_STREAM or SOCK_DGRAM
    sockaddr_storage addr_ss;    // out: the address used
    socklen_t addr_len;
};

constexpr size_t IFC_NAME_LEN = 16;

// One chosen network interface; idx 0 and an empty name mean no particular
// one. Heap-allocated and zeroed; whoever receives it frees it.
struct ifc_info {
    uint32_t idx;
    char name[IFC_NAME_LEN];
    sockaddr_storage ss;  // an address of the interface or the any-address; family 0: not known yet
};

// Process-wide options of this unit.
struct net_options {
    unsigned use_legacy_mcast_api : 1;  // join through the per-protocol options only
};

extern net_options g_opt;

// Turns the legacy membership interface on; nothing turns it off again.
void set_legacy_mcast_api(int ON);

// The factory: a descriptor or -1. addr null is the any-address of
// sspec->family; *ifi (when ifi is given) receives the interface record of a
// multicast socket, owned by the caller, or null.
int open_socket(const char* addr, const char* port, socket_spec* sspec, const char* ifc_tag, ifc_info** ifi);

// Names and tests of families and addresses.
const char* af_name(int af);
const char* anyaddr_str(int af);
int is_multicast(sockaddr* sa);
int is_unspecified(sockaddr* sa);
socklen_t saddr_len(const sockaddr* sa);
socklen_t saddr_size(const sockaddr* sa);
void cpy_sockaddr(const sockaddr* src, sockaddr* dst, socklen_t len);

// Descriptor options.
int is_non_blocking(int sockfd);
int set_nblock(int sockfd, int nblock);
void set_ipv6only(int fd, int on);
int reuse_and_bind(int sock, sockaddr* addr, socklen_t addrlen);
int set_rcv_timeout(int sockfd, int ms);
int set_send_timeout(int sockfd, int ms);
int set_socket_sendbuf(int sockfd, size_t length);
int set_socket_rcvbuf(int sockfd, size_t length);

// Textual forms: numeric only, nothing is ever looked up for a log line.
char* saddr_str(sockaddr* sa, socklen_t salen, char* buf, size_t len);
void dump_ai(FILE* out, const addrinfo* ai);
void dump_sa_info(FILE* fp, const char* msg, const sockaddr* sa, socklen_t addrlen);

// "address:port" to a socket address: 0, -1 (look-up or sockets failed) or
// EINVAL (the text refused).
int mk_sockaddr(const char* addr_port, int stype, int proto, sockaddr_storage* ss, socklen_t* slen);

// Interfaces.
int is_anyaddr(const char* addr_str);
int is_ipv6_mc_local(sockaddr* sa);
ifc_info* any_ifc_info(int af);
ifc_info* get_ifc_info(int af, const char* tag);
unsigned int ifaddr_index(const char* ifc, sockaddr_storage* ss);
int ifc_addr_lookup(int family, const char* ifc, sockaddr* sa, socklen_t len);

// Group membership and multicast sending.
int mcast_join(int sockfd, sockaddr_storage* grs, ifc_info* mifc);
int mcast_leave(int sockfd, sockaddr_storage* grs, ifc_info* mifc);
int mcast_group_op(const char* caller, const char* ifc_name, unsigned int ifc_idx, sockaddr_storage* grp,
                   sockaddr_storage* ifc, int join, int sock);
int set_ipv6_sock_ifc(int sock, uint32_t index);
void sync_ipv6addr_scope_id(sockaddr* sa, const char* ifc_name, const sockaddr_storage* ifc_ss);
int set_mcast_ttl(int family, int fd, int ttl);

// The service side: listeners, local-domain sockets, options of a
// connected socket. A path of a local socket holds at most 103 characters.
constexpr size_t MAX_DOMAIN_PATH = 103;
// A bad port or family is told and the attempt goes on.
int open_listener(const sockaddr_storage* ss, const char* port, int defer_listen);
int open_udp_listener(const sockaddr_storage* ss, const char* port);
int open_anyaddr_listener(int af, const char* port, int defer_listen);
int open_domain_listener(const char* path);
int open_domain_client(const char* path, size_t max_attempts, long int pause_msec);
int set_tcp_nodelay(int sockfd, int is_on);
int set_tcp_nopush(int sockfd, int is_on);
int set_keepalive(int sockfd, int optval);
// AF_INET, AF_INET6 or AF_UNSPEC for a family's name, -1 for none.
int name2af(const char* name);
// The socket's pending error (told and put in errno), or 0.
int socket_error(int sockfd);
const char* get_peer_ipaddr(int sockfd, char* buf, size_t buflen);
