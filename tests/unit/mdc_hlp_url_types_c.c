/* The public headers for C callers: strict C11, linked against the shared library as a player is. */
#include "mdc_hlp_url.h"
#include "mdp_debug.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

struct Received
{
    unsigned int lines;
    int invalidHandleSeen;
};

static int failures = 0;

static void expect(int holds, const char* what)
{
    if (!holds) {
        ++failures;
        fprintf(stderr, "failed: %s\n", what);
    }
}

#define EXPECT(condition) expect((condition) ? 1 : 0, #condition)

static void sink(void* context, unsigned int level, const char* text)
{
    struct Received* received = context;
    ++received->lines;
    if ((level & 0xffffU) == 3000U && strstr(text, "Invalid handle 0.\n") != NULL) {
        received->invalidHandleSeen = 1;
    }
}

static void checkAgent(void)
{
    mdch_UrlInit_struct init = {NULL};
    EXPECT(userAgent == NULL);
    EXPECT(strcmp(mdch_getUserAgent(), "") == 0);
    EXPECT(mdch_UrlInit(NULL) == 0);
    EXPECT(mdch_UrlInit(&init) == -EINVAL);
    init.userAgent = "C player/1";
    EXPECT(mdch_UrlInit(&init) == 0);
    EXPECT(strcmp(mdch_getUserAgent(), "C player/1") == 0);
    EXPECT(userAgent == mdch_getUserAgent());
}

static void checkFile(const char* path)
{
    unsigned char text[] = "written from C";
    unsigned char back[sizeof(text)] = {0};
    const unsigned int size = (unsigned int)sizeof(text);
    mdch_UrlExtended_struct ext = {0};
    unsigned int handle = mdch_UrlOpen(path, MDCH_MODE_WRITE);
    EXPECT(handle == 1);
    EXPECT(mdch_UrlWrite(handle, text, size) == (int)size);
    EXPECT(mdch_UrlClose(handle) == 0);

    handle = mdch_UrlOpenExt(path, MDCH_MODE_READ, &ext);
    EXPECT(handle == 2);
    EXPECT(mdch_UrlSize(handle) == (long long)size);
    EXPECT(mdch_UrlIsSeekable(handle) == 1);
    EXPECT(mdch_UrlCapability(handle) == (MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_STALLING));
    EXPECT(mdch_UrlGetc(handle) == 'w');
    EXPECT(mdch_UrlSeek(handle, 0, SEEK_SET) == 0);
    EXPECT(mdch_UrlTell(handle) == 0);
    EXPECT(mdch_UrlRead(handle, back, size) == (int)size);
    EXPECT(memcmp(text, back, sizeof(text)) == 0);
    EXPECT(mdch_UrlSeekTime(handle, 0) == -1);
    EXPECT(mdch_UrlGetc(handle) == -1);
    EXPECT(mdch_UrlEof(handle) != 0);
    mdch_UrlClearerr(handle);
    EXPECT(mdch_UrlEof(handle) == 0);
    EXPECT(mdch_UrlError(handle) == 0);
    EXPECT(mdch_UrlPause(handle) == 0);
    EXPECT(mdch_UrlResume(handle) == 0);
    EXPECT(mdch_UrlClose(handle) == 0);
    EXPECT(remove(path) == 0);
    EXPECT(mdch_UrlOpenExt(path, MDCH_MODE_READ, &ext) == 0);
    EXPECT(ext.error == -ENOENT);
}

static void checkTraces(void)
{
    struct Received received = {0, 0};
    mdpDebugSetSink(sink, &received);
    mdpDebugSetSeverity(3000);
    EXPECT(mdpDebugCheck(3000) == 1);
    EXPECT(mdpDebugCheck(3001) == 0);
    EXPECT(mdch_UrlEof(0) == 1);
    mdpDebugPrintf(1000, "%s %d\n", "text", 1);
    mdpDebugHexDump(1000, "text", 4);
    mdpDebugSetSeverity(0);
    EXPECT(mdch_UrlEof(0) == 1);
    mdpDebugSetSink(NULL, NULL);
    EXPECT(received.lines == 3);
    EXPECT(received.invalidHandleSeen == 1);
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE, which is written and removed\n", argv[0]);
        return 2;
    }
    mdpDebugSetSeverity(0);
    checkAgent();
    checkFile(argv[1]);
    checkTraces();
    return failures == 0 ? 0 : 1;
}
