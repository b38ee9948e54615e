#include "support_openssl_server.h"

#include <utility>

namespace support {

OpensslServer::OpensslServer(const Identity& identity, std::vector<std::string> more)
    : LocalServer("openssl"), m_certificate(identity.pem), m_key(identity.keyPem), m_more(std::move(more))
{
    folder().makeDir("files");
    start(1);
}

void OpensslServer::addFile(const std::string& name, const std::string& content) const
{
    folder().write("files/" + name, content);
}

std::string OpensslServer::secureUrl(const std::string& path) const
{
    return "https://127.0.0.1:" + std::to_string(port()) + path;
}

std::vector<std::string> OpensslServer::command()
{
    // It serves the folder in which it runs.
    std::vector<std::string> words = {"sh",
                                      "-c",
                                      "cd \"$1\" && shift && exec openssl s_server \"$@\"",
                                      "server",
                                      folder().file("files"),
                                      "-WWW",
                                      "-accept",
                                      "127.0.0.1:" + std::to_string(port()),
                                      "-cert",
                                      m_certificate,
                                      "-key",
                                      m_key};
    words.insert(words.end(), m_more.begin(), m_more.end());
    return words;
}

} // namespace support
