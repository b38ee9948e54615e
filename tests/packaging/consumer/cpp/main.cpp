// Prints what kind of stream is at an address, its length, and the items of the playlist that it is.
#include <iostream>
#include <list>
#include <mdc_hlp_http_access.h>
#include <mdc_hlp_httpproxy.h>
#include <mdc_hlp_playlist.h>
#include <mdc_hlp_redirect.h>
#include <mdc_hlp_url_base.h>
#include <mdc_hlp_url_encode.h>
#include <mdc_hlp_url_file.h>
#include <mdc_hlp_url_nvol2.h>
#include <mdc_hlp_url_patch.h>
#include <mdc_hlp_url_udp.h>
#include <string>

int main(int argc, char** argv)
{
    const std::string url = argc > 1 ? argv[1] : "";
    boost::shared_ptr<MdchUrlBase> stream;
    if (mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, nullptr, stream) != 0) {
        std::cerr << "cannot open " << url << '\n';
        return 1;
    }
    // The types of the library are known to the program.
    const char* kind = dynamic_cast<md::HttpAccess*>(stream.get()) != nullptr ? "HTTP"
                       : dynamic_cast<MdchUrlFile*>(stream.get()) != nullptr  ? "file"
                                                                              : "other";
    std::cout << kind << ", " << stream->size() << " bytes\n";
    stream->close();

    std::list<md::PlaylistEntry> entries;
    std::string name;
    if (md::scanPlaylist(url, entries, name, md::kConversionNone) != 0) {
        return 1;
    }
    for (const md::PlaylistEntry& entry : entries) {
        std::cout << entry.title << " at " << md::urlPatch(entry.locator) << '\n';
    }
    md::HttpAccess::shutdown();
    return 0;
}
