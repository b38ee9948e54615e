#include "support_proxies.h"

namespace support {

Squid::Squid() : ProxyServer("squid")
{
    folder().makeDir("errors"); // the texts of its own error pages are in the package of another language
    ProcessOptions options;
    options.withoutPrivileges = true; // it would look for the user of the machine's own proxy
    start(1, options);
}

std::vector<std::string> Squid::command()
{
    // "sesame", as crypt() has it.
    folder().write("passwords", user() + ":$1$saltsalt$J3RStOYaRn/5Iz9DGbAnx1\n");
    const std::string programs = unpackedFile("/usr/lib/squid/");
    const std::string data = unpackedFile("/usr/share/squid/");
    const std::string file = folder().write(
        "squid.conf",
        "http_port 127.0.0.1:" + std::to_string(port()) + "\nvisible_hostname localhost\npid_filename " +
            folder().file("pid") + "\naccess_log none\ncache_log " + folder().file("output.log") +
            "\ncache_store_log none\ncoredump_dir " + folder().path() +
            "\nnetdb_filename none\npinger_enable off\nmax_filedescriptors 1024\n"
            "cache deny all\nmemory_pools off\nshutdown_lifetime 0 seconds\n"
            "unlinkd_program " +
            programs + "unlinkd\nmime_table " + data + "mime.conf\nicon_directory " + data +
            "icons\nerror_directory " + folder().file("errors") + "\nauth_param basic program " + programs +
            "basic_ncsa_auth " + folder().file("passwords") +
            "\nauth_param basic children 1 startup=1\nacl known proxy_auth REQUIRED\n"
            "http_access allow known\nhttp_access deny all\n");
    // A name of its own: it keeps shared memory under it.
    return {unpackedFile("/usr/sbin/squid"), "-N", "-f", file, "-n", "test" + std::to_string(port())};
}

Tinyproxy::Tinyproxy() : ProxyServer("tinyproxy")
{
    start(1);
}

std::vector<std::string> Tinyproxy::command()
{
    const std::string file = folder().write(
        "tinyproxy.conf", "Port " + std::to_string(port()) +
                              "\nListen 127.0.0.1\nTimeout 600\nMaxClients 50\nLogFile \"" +
                              folder().file("output.log") + "\"\nLogLevel Warning\nBasicAuth " + user() +
                              " " + password() + "\n");
    return {"tinyproxy", "-d", "-c", file};
}

} // namespace support
