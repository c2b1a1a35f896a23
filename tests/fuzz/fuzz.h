// What the fuzz targets share: a check that names what failed, a scratch folder, well-formed blobmsg.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <libubox/blobmsg_json.h>

namespace fuzz {

inline std::string scratchDir;

inline void removeScratch() { std::error_code ignored; std::filesystem::remove_all(scratchDir, ignored); }

// Prints "<program>: <what>" and aborts; libFuzzer then saves and prints the input.
[[noreturn]] inline void fail(const std::string &what)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    removeScratch();
    std::abort();
}
#define FUZZ_CHECK(ok, what) ((ok) ? (void)0 : fuzz::fail(what))

// A fresh folder /dev/shm/gwconf-<program>-XXXXXX, removed at exit and when a check fails (libFuzzer owns the
// sanitizers' one death callback).
inline const std::string &scratch()
{
    std::string name = "/dev/shm/gwconf-" + std::string(program_invocation_short_name) + "-XXXXXX";
    FUZZ_CHECK(mkdtemp(name.data()), "no scratch folder");
    scratchDir = name;
    std::atexit(removeScratch);
    return scratchDir;
}

// Every member passes the library's check (named: with a name, in tables), at every depth, and fills its container.
inline bool wellFormed(const void *data, size_t len, bool named)
{
    blob_attr *cur;
    size_t rem = len, seen = 0;
    __blob_for_each_attr(cur, const_cast<void *>(data), rem) {
        const int type = blobmsg_type(cur);
        if (!blobmsg_check_attr(cur, named) ||
            ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
             !wellFormed(blobmsg_data(cur), blobmsg_data_len(cur), named && type == BLOBMSG_TYPE_TABLE)))
            return false;
        seen += blob_pad_len(cur);
    }
    return seen == len;
}

}  // namespace fuzz
