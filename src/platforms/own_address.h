// The address by which this host is known to others.
#pragma once

// This host's own first address as text; empty when it isn't known. The look-up may ask a name server and
// take seconds, so a success is kept, and a failure for a minute; without `mayAsk` only what is kept counts.
// Initialisation thread, then worker.
const char *OwnAddress(bool mayAsk);
