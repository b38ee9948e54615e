/* The URL text functions for C callers: strict C11, linked against the shared library as a player is. */
#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

typedef int (*TextFunction)(const char*, char*, int);

static int failures = 0;

static void expect(int holds, const char* what)
{
    if (!holds) {
        ++failures;
        fprintf(stderr, "failed: %s\n", what);
    }
}

#define EXPECT(condition) expect((condition) ? 1 : 0, #condition)

static void check(TextFunction function, const char* input, const char* result)
{
    char buffer[64];
    char untouched[sizeof(buffer)];
    const int length = (int)strlen(result);
    memset(buffer, 'x', sizeof(buffer));
    memset(untouched, 'x', sizeof(untouched));
    EXPECT(function(NULL, buffer, (int)sizeof(buffer)) == -EINVAL);
    EXPECT(function(input, NULL, (int)sizeof(buffer)) == -EINVAL);
    EXPECT(function(input, buffer, length) == -ENOMEM);
    EXPECT(memcmp(buffer, untouched, sizeof(buffer)) == 0);
    EXPECT(function(input, buffer, length + 1) == 0);
    EXPECT(strcmp(buffer, result) == 0);
    EXPECT(buffer[length + 1] == 'x');
}

int main(void)
{
    check(mdc_httphelper_urlEncode, "http://u@h/x?y=1&z", "http://u%40h/x%3Fy=1%26z");
    check(mdc_httphelper_urlDecode, "%41%4a%zz%4", "AJ%zz%4");
    check(mdc_httphelper_urlPatch, "http://host/caf\xe9 \"|", "http://host/caf%C3%A9%20%22%7C");
    return failures == 0 ? 0 : 1;
}
