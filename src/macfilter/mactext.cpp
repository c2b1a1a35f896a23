// MAC address texts and the parsing of stored and agent lists. Everything here works in caller-owned buffers.
#include "macfilter.h"

#include <string.h>

#include "routeutils/routeutils.h"
#include "uciconfig.h"

using routeutils::copyCut;

namespace {

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool isColonPosition(int i)
{
    return i == 2 || i == 5 || i == 8 || i == 11 || i == 14;
}

} // namespace

int macValidCheck(const char *text, int length)
{
    if (length != MAC_COLON_LEN || !text) {
        log_error("[%s:%d]macData len(%d) fail!", __func__, __LINE__, length);
        return -1;
    }
    for (int i = 0; i < MAC_COLON_LEN; ++i) {
        bool ok = isColonPosition(i) ? text[i] == ':' : isHexDigit(text[i]);
        if (!ok) {
            log_error("[%s:%d]macData(%s) check fail!", __func__, __LINE__, text);
            return -1;
        }
    }
    return 0;
}

int macToUpper(char *text)
{
    if (!text || strlen(text) != MAC_COLON_LEN)
        return -1;
    for (int i = 0; i < MAC_COLON_LEN; ++i)
        if (text[i] >= 'a' && text[i] <= 'z')
            text[i] = static_cast<char>(text[i] - 32);
    log_info("[%s:%d]newMac:%s", __func__, __LINE__, text);
    return 0;
}

int macDelColon(char *text)
{
    int len = static_cast<int>(strlen(text));
    if (len != MAC_COLON_LEN) {
        log_error("[%s:%d]macData len(%d) fail!", __func__, __LINE__, len);
        return -1;
    }
    int out = 0;
    for (int i = 0; i < len; ++i)
        if (text[i] != ':')
            text[out++] = text[i];
    text[out] = '\0';
    log_info("[%s:%d]newMac:%s", __func__, __LINE__, text);
    return 0;
}

void macAddColon(char *text)
{
    int len = static_cast<int>(strlen(text));
    if (len != MAC_BARE_LEN) {
        log_error("[%s:%d]macData len(%d) fail!", __func__, __LINE__, len);
        return;
    }
    char scratch[MAC_COLON_LEN + 1] = {};
    int out = 0;
    for (int i = 0; i < MAC_BARE_LEN; i += 2) {
        scratch[out++] = text[i];
        scratch[out++] = text[i + 1];
        if (i + 2 < MAC_BARE_LEN)
            scratch[out++] = ':';
    }
    memcpy(text, scratch, sizeof scratch);
    log_info("[%s:%d]newMac:%s", __func__, __LINE__, text);
}

int macListSplit(char *text, const char *delims, char *pieces[], int max)
{
    int count = 0;
    char *p = text;
    while (p && count < max) {
        p += strspn(p, delims);
        if (*p == '\0')
            break;
        pieces[count++] = p;
        p += strcspn(p, delims);
        if (*p != '\0')
            *p++ = '\0';
    }
    return count;
}

void macEntrySplit(const char *piece, size_t macLen, MacFilterEntry *entry)
{
    char token[MACFILTER_ENTRY_LEN + 1] = {};
    copyCut(token, piece);
    *entry = MacFilterEntry{};
    copyCut(entry->mac, token, macLen < MAC_COLON_LEN ? macLen : MAC_COLON_LEN);
    if (strlen(token) > macLen + 1)
        copyCut(entry->name, token + macLen + 1);
}

bool macEntryUsable(MacFilterEntry *entry)
{
    return entry->mac[0] != '\0' && entry->name[0] != '\0' && macToUpper(entry->mac) == 0;
}

void macEntryLine(char (&line)[MACFILTER_ENTRY_LEN + 1], const MacFilterEntry &entry)
{
    routeutils::formatCut(line, MACFILTER_ENTRY_LEN, "%.17s/%.44s", entry.mac, entry.name);
}

int macFilterListRead(const char *func, const char *path, MacFilterEntry list[MACFILTER_MAX_ENTRIES])
{
    char all[MACFILTER_LIST_LEN + 1] = {};
    if (uciGetStr(path, all, MACFILTER_LIST_LEN) != 0) {
        log_error("[%s:%d]uciGetStr %s error or null", func, __LINE__, path);
        return 0;
    }
    log_info("[%s:%d]ListAll:%s", func, __LINE__, all);
    char *pieces[MACFILTER_MAX_ENTRIES];
    int count = macListSplit(all, " ", pieces, MACFILTER_MAX_ENTRIES);
    for (int i = 0; i < count; ++i) {
        char token[MACFILTER_ENTRY_LEN + 1] = {};
        copyCut(token, pieces[i]);
        log_info("[%s:%d]ListPart:%s", func, __LINE__, token);
        macEntrySplit(token, MAC_COLON_LEN, &list[i]);
        log_info("[%s:%d]MFList.mac:%s, MFList.name:%s", func, __LINE__, list[i].mac, list[i].name);
    }
    return count;
}

int macFilterModelOf(const char *curmode)
{
    if (strncmp(curmode, "deny", MACFILTER_OPTION_LEN) == 0)
        return MACFILTER_MODEL_BLACK;
    if (strncmp(curmode, "allow", MACFILTER_OPTION_LEN) == 0)
        return MACFILTER_MODEL_WHITE;
    return MACFILTER_MODEL_OFF;
}
