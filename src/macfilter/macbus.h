// Bus helpers shared by the MAC filter's objects: argument parsing that survives any message.
#pragma once

#include <stdint.h>

#include "busmethod.h"
#include "gwconf.h"
#include "macfilter.h"

// Parses the payload of msg (a top-level message or a TABLE argument) with policy; a missing message leaves every
// slot empty. An absent argument and one of another type both leave their slot null.
inline void macParseArgs(const struct blobmsg_policy *policy, int n, struct blob_attr **tb, struct blob_attr *msg)
{
    for (int i = 0; i < n; ++i)
        tb[i] = nullptr;
    if (msg)
        blobmsg_parse(policy, n, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
}

inline void macParseTable(const struct blobmsg_policy *policy, int n, struct blob_attr **tb, struct blob_attr *table)
{
    for (int i = 0; i < n; ++i)
        tb[i] = nullptr;
    if (table)
        blobmsg_parse(policy, n, tb, blobmsg_data(table), static_cast<unsigned>(blobmsg_data_len(table)));
}

inline int32_t macArgInt(struct blob_attr *attr)
{
    return static_cast<int32_t>(blobmsg_get_u32(attr));
}

inline void macAddBool(struct blob_buf *b, const char *name, bool value)
{
    blobmsg_add_u8(b, name, value ? 1 : 0);
}
