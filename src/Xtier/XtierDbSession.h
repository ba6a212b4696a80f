// Which process of this host serves which client port of a database: the request "xtier01".
//
// No socket table is read yet, so nothing is known about any process and the reply is empty. Worker only.
#pragma once

#include <cstdint>

enum : int32_t { PROC_NET_FILES = 6 };

// The kernel's tables of tcp, udp, raw and their IPv6 counterparts, in this order; -1 where it can't be
// opened.
extern int32_t proc_net_fd[PROC_NET_FILES];

// Opens those that are not open. True when all are. Start-up; they stay open for the life of the process.
bool QorOpenProcNet();

// Answers into `pagebuf`. The text is: port, client host, process ids.
void a_xtierfn01(char *parameters);
