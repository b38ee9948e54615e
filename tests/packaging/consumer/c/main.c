/* Prints the length and the last bytes of a stream, and the address as it would be sent. */
#include <mdc_hlp_url.h>
#include <mdc_hlp_url_encode.h>
#include <mdc_hlp_url_patch.h>
#include <mdp_debug.h>
#include <nvol2.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv)
{
    const char* url = argc > 1 ? argv[1] : "";
    const mdch_UrlInit_struct init = {"consumer/1.0"};
    if (mdch_UrlInit(&init) != 0 || nvol2MediaIDGetByUUID("none") >= 0) {
        return 1;
    }
    mdpDebugSetSeverity(0);

    const unsigned int stream = mdch_UrlOpen(url, MDCH_MODE_READ);
    if (stream == 0) {
        fprintf(stderr, "cannot open %s\n", url);
        return 2;
    }
    unsigned char end[5] = {0};
    if (mdch_UrlSeek(stream, -4, SEEK_END) != 0 || mdch_UrlRead(stream, end, 4) != 4) {
        return 3;
    }
    printf("%s: %lld bytes, ending with %s\n", mdch_getUserAgent(), mdch_UrlSize(stream), (const char*)end);
    mdch_UrlClose(stream);
    return 0;
}
