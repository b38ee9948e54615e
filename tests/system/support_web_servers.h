// Web servers of a test's own beside nginx: lighttpd and Apache httpd. Each serves a folder, redirects "/moved" to
// "/song.mp3", and hides "/forbidden".
#pragma once

#include "support_servers.h"

#include <string>
#include <vector>

namespace support {

class Lighttpd : public LocalServer
{
public:
    Lighttpd();

    // Puts a file where the server finds it.
    void addFile(const std::string& name, const std::string& content) const;

    // The same with TLS and the test CA's certificate.
    std::string secureUrl(const std::string& path) const;

private:
    std::vector<std::string> command() override;
};

class Apache : public LocalServer
{
public:
    Apache();
    void addFile(const std::string& name, const std::string& content) const;

private:
    std::vector<std::string> command() override;
    bool isReady() override;
    std::string complaint() const override;
};

} // namespace support
