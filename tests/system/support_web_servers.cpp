#include "support_web_servers.h"

#include "support/certificates.h"

namespace support {

Lighttpd::Lighttpd() : LocalServer("lighttpd")
{
    folder().makeDir("files");
    start(2);
}

void Lighttpd::addFile(const std::string& name, const std::string& content) const
{
    folder().write("files/" + name, content);
}

std::string Lighttpd::secureUrl(const std::string& path) const
{
    return "https://127.0.0.1:" + std::to_string(port(1)) + path;
}

std::vector<std::string> Lighttpd::command()
{
    const Identity& identity = certificates().leaf;
    const std::string file = folder().write(
        "lighttpd.conf", "server.document-root = \"" + folder().file("files") +
                             "\"\nserver.bind = \"127.0.0.1\"\nserver.port = " + std::to_string(port()) +
                             "\nserver.modules = (\"mod_access\", \"mod_redirect\", \"mod_openssl\")\n"
                             "server.errorlog = \"" +
                             folder().file("error.log") +
                             "\"\nmimetype.assign = (\".mp3\" => \"audio/mpeg\")\n"
                             "url.redirect = (\"^/moved$\" => \"/song.mp3\")\n"
                             "$HTTP[\"url\"] == \"/forbidden\" { url.access-deny = (\"\") }\n"
                             "$SERVER[\"socket\"] == \"127.0.0.1:" +
                             std::to_string(port(1)) + "\" {\n  ssl.engine = \"enable\"\n  ssl.pemfile = \"" +
                             identity.pem + "\"\n  ssl.privkey = \"" + identity.keyPem + "\"\n}\n");
    return {unpackedFile("/usr/sbin/lighttpd"), "-D", "-f", file, "-m", unpackedFile("/usr/lib/lighttpd")};
}

Apache::Apache() : LocalServer("apache")
{
    folder().makeDir("files");
    ProcessOptions options;
    options.withoutPrivileges = true; // it would look for the user of the machine's own server
    start(1, options);
}

void Apache::addFile(const std::string& name, const std::string& content) const
{
    folder().write("files/" + name, content);
}

// It listens for a moment while it reads its configuration for the first of two times; behind the second it says who
// it is.
bool Apache::isReady()
{
    return !readFile(folder().file("pid")).empty() && LocalServer::isReady();
}

std::string Apache::complaint() const
{
    return readFile(folder().file("apache.log"));
}

std::vector<std::string> Apache::command()
{
    std::string text =
        "ServerName 127.0.0.1\nServerRoot " + folder().path() + "\nDefaultRuntimeDir " + folder().path() +
        "\nPidFile pid\nErrorLog apache.log\nListen 127.0.0.1:" + std::to_string(port()) + "\n";
    for (const std::string name : {"mpm_event", "authz_core", "mime", "alias"}) {
        text += "LoadModule " + name + "_module /usr/lib/apache2/modules/mod_" + name + ".so\n";
    }
    text += "TypesConfig /dev/null\nAddType audio/mpeg .mp3\nDocumentRoot " + folder().file("files") +
            "\nRedirect 302 /moved /song.mp3\nRedirect 403 /forbidden\n";
    // One process, which ends as one.
    return {"apache2", "-X", "-f", folder().write("apache.conf", text)};
}

} // namespace support
