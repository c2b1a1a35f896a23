// Reads and writes of the stored IPTV setting (package iptv, section main).
#include "iptv_store.h"

#include "gwconf.h"
#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "uciconfig.h"

#include <cstring>

bool iptvReadOption(const char *option, char text[IPTV_OPT_SIZE])
{
    memset(text, 0, IPTV_OPT_SIZE);
    return uciGetConfig(UCI_IPTV_FILE, "main", option, text, IPTV_OPT_SIZE - 1) == 0;
}

int iptvWriteOption(const char *option, int32_t value)
{
    char text[IPTV_OPT_SIZE];
    routeutils::formatCut(text, IPTV_OPT_WRITE_LEN, "%d", value);
    return uciSetConfig(UCI_IPTV_FILE, "main", option, text);
}

bool iptvReadType(int32_t *type)
{
    int32_t value = 0;
    if (uciGetOptionInt32(UCI_IPTV_FILE, UCI_IPTV_FILE, "main", "type", &value) != 0)
        return false;
    *type = value;
    return true;
}

void iptvReadMemberShape(IptvInfo *info)
{
    char text[IPTV_OPT_SIZE];
    info->vlanId = iptvReadOption("vlanid", text) ? iptvDecimal(text) : 0;
    int32_t type = 0;
    info->type = iptvReadType(&type) ? type : 0;
}
