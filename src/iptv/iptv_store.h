// Reads and writes of the stored IPTV setting (package iptv, section main), shared by the start-up restore and
// the two bus objects.
#pragma once

#include "iptv.h"

// Reads one text option of iptv/main into text (zeroed first, at most 7 characters). True when the read worked.
bool iptvReadOption(const char *option, char text[IPTV_OPT_SIZE]);
// Writes "%d" of value (at most 6 characters) to one text option of iptv/main; the write commits by itself.
// Returns the configuration layer's result (0 = written).
int iptvWriteOption(const char *option, int32_t value);
// Reads the integer option type of iptv/main. True when the read worked.
bool iptvReadType(int32_t *type);
// Fills vlanId (decimal value of vlanid, 0 when unreadable) and type (0 when unreadable) of info: what decides
// the member names of the stored setting's ports.
void iptvReadMemberShape(IptvInfo *info);
