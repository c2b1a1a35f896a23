// The UPnP switch (object RTUpnp: the miniupnpd service and its lease list) and the start-up restore of the UPnP
// service and the DMZ rule.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <libubus.h>

// Argument policy of setUpnpStatus.
enum {
    E_SETUPNPSTATUS_ENABLE,
    __E_SETUPNPSTATUS_MAX
};

// ---- Lease list ----

// A lease line is "protocol:external port:internal address:internal port:time:description"; the description runs
// to the end of the line and keeps its own colons.
#define UPNP_MAX_LEASES 128        // getUpnpStatus lists at most this many lines of the lease file
#define UPNP_LEASE_LINE_MAX 1023   // characters of one line that are looked at; the rest of a longer line is skipped
#define UPNP_MAX_PORT 65535u       // a port field above this reads as 0

// One lease, zero-filled before it is filled. Texts are cut to their buffers, never overrun.
struct UpnpLeaseEntry {
    char protocol[4];                          // field 1, at most 3 characters
    uint32_t externalPort;                     // field 2
    char internalIP[16];                       // field 3, at most 15 characters
    uint32_t internalPort;                     // field 4
    char description[UPNP_LEASE_LINE_MAX + 1]; // field 6 to the end of the line
};

// Reads the next line of f into line (at most UPNP_LEASE_LINE_MAX bytes kept, terminated; the line end is not
// kept; the rest of a longer line is read and dropped). False at the end of the file when nothing was read.
// The text of a line ends at its first NUL byte.
bool upnpReadLeaseLine(FILE *f, char (&line)[UPNP_LEASE_LINE_MAX + 1]);
// Splits one line (without its line end) into a zero-filled entry. Every line gives an entry: missing fields are
// empty or 0; trailing carriage returns and line feeds are not part of the last field.
void upnpParseLeaseLine(const char *line, UpnpLeaseEntry *out);
// Protocol number of a lease: 0 for "TCP" or "tcp", 1 for any other text.
uint32_t upnpProtocolNumber(const char *protocol);
// The value of the leading decimal digits of text, 0 when there are none; saturates at max.
uint32_t upnpLeadingNumber(const char *text, uint32_t max);
// Reads at most UPNP_MAX_LEASES lines of f and hands each parsed entry to visit; returns the number of entries.
int upnpReadLeases(FILE *f, void (*visit)(const UpnpLeaseEntry *entry, void *arg), void *arg);

// ---- RTUpnp and the restore ----

int NatForward_setUpnpStatus(struct blob_attr *msg);
int NatForward_getUpnpStatus(struct blob_attr *msg);
// Stores the switch (0 or 1) in option _init of the first upnpd section; 0 or -1.
int NatForward_setUpnpEnabled(int value);
// 1 switches the service on, 0 off; both rewrite the firewall include first. Other values do nothing.
void NatForward_applyUpnp(int value);
// Writes the firewall include "dmzupnpdomain" with the uci tool and reloads the firewall.
void NatForward_setFirewallInclude(void);
