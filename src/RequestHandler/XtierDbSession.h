// Which process of this host serves which client port of a database: the request "xtier01".
//
// The agent is on the database's host here. The kernel's socket tables say which sockets of the listener
// belong to a client, by inode; the descriptors of the processes asked about say which of them holds one.
// Only /proc/net and /proc/NUMBER/fd are read. Worker only.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char XTIER_WORD[] = "xtier01";

enum : int32_t { PROC_NET_FILES = 6 };

// The kernel's tables of tcp, udp, raw and their IPv6 counterparts, in this order; -1 where it can't be
// opened.
extern int32_t proc_net_fd[PROC_NET_FILES];

// A row of these tables.
struct QorNetRecord {
    uint64_t inode; // the sort key
    uint64_t reserved;
    uint32_t remotePort; // for the session look-up, the client's port
    uint32_t localPort;
};

// The sockets found, kept allocated between requests.
extern QorNetRecord *NetData;
extern int32_t totalnet;   // in use; set to 0 by each request
extern int32_t maxnetsize; // allocated

// Opens those that are not open, or whose descriptors the host has closed. True when all are open. Start-up;
// they stay open for the life of the process.
bool QorOpenProcNet();

// The descriptor of one of them; -1 also when the host has closed it, and its number may be another file's.
int32_t QorProcNetFile(int32_t file);

// Answers into `pagebuf`. The text is PORT|CLIENT HOST|PROCESS IDS, the ids with commas between them and
// ended by a bar or the text's end. The reply is PROCESS,CLIENT PORT, for each process that holds such a
// connection (the first one found) and a bar, or a text that begins with "ERROR".
void a_xtierfn01(char *parameters);

// The lines of an open file that hold `pattern`, each with a line end; the caller frees them. The file's own
// position is left alone. Only the first one when `firstOnly` is set. Null for none, for a descriptor that
// can't be read and without memory. Lines of more than 4,095 bytes are passed over.
char *MY_GREP(int32_t fd, const char *pattern, bool firstOnly);

// A dotted IPv4 address as it lies in memory. 1, or 0 with the address as it was.
int32_t HostNametoClAddr(const char *text, uint32_t *address);

// Cuts up a row, "NUMBER: ADDRESS:PORT ADDRESS:PORT STATE QUEUES TIMER RETRANSMITS UID TIMEOUT INODE ...",
// addresses and ports in hexadecimal. False when it isn't of that form or, with `mapped`, when its addresses
// aren't IPv4 ones. Any thread.
bool QorParseNetRow(char *row, bool mapped, QorNetRecord *record);

// The inode of a socket by the name of its descriptor ("socket:[NUMBER]") in an open /proc/NUMBER/fd; 0 for
// any other. Unlike stat this never waits for a file's own system. Any thread.
uint64_t QorSocketInode(int directory, const char *entry);
