#include "support_nginx.h"

#include "support/certificates.h"
#include "support/sockets.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iostream>
#include <stdexcept>

namespace support {

namespace {

// Elliptic-curve certificates need TLS 1.3 here: below it, the library offers ciphers with RSA only.
constexpr const char* kModern = "    ssl_protocols TLSv1.2 TLSv1.3;\n";
constexpr const char* kOlder = "    ssl_protocols TLSv1.2;\n";

std::string tlsServer(std::uint16_t port, const Identity& identity, const std::string& more = kModern)
{
    return "  server {\n    listen 127.0.0.1:" + std::to_string(port) + " ssl;\n    ssl_certificate " +
           identity.pem + ";\n    ssl_certificate_key " + identity.keyPem + ";\n" + more +
           "    root files;\n  }\n";
}

} // namespace

Nginx::Nginx()
{
    m_folder.makeDir("files");
    certificates().rsaLeaf(); // made before a port is chosen: keys take their time
    // Another program may take a port between its choice and the start: then others are tried.
    constexpr int kAttempts = 10;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (start()) {
            return;
        }
    }
    throw std::runtime_error("nginx does not start: " + readFile(m_folder.file("error.log")));
}

Nginx::~Nginx()
{
    if (testing::Test::HasFailure()) {
        std::cerr << "nginx " << (m_process->isRunning() ? "runs" : "has ended") << ":\n"
                  << readFile(m_folder.file("error.log")) << readFile(m_folder.file("stderr.log"));
    }
}

bool Nginx::start()
{
    m_ports.clear();
    {
        // All held until the last is chosen, so that they differ.
        std::vector<LoopbackPort> held(kPortCount);
        for (const LoopbackPort& port : held) {
            m_ports.push_back(port.port());
        }
    }
    const std::string file = m_folder.write("nginx.conf", configuration());
    ProcessOptions options;
    options.standardError = m_folder.file("stderr.log");
    m_process = std::make_unique<Process>(std::vector<std::string>{"nginx", "-p", m_folder.path() + "/", "-c",
                                                                   file, "-e", m_folder.file("error.log")},
                                          options);
    const auto isReady = [this] {
        return std::all_of(m_ports.begin(), m_ports.end(),
                           [this](auto port) { return m_process->listens(port); });
    };
    waitUntil([&] { return !m_process->isRunning() || isReady(); });
    return m_process->isRunning() && isReady();
}

std::string Nginx::configuration() const
{
    const Certificates& files = certificates();
    const auto port = [this](Port which) { return m_ports.at(which); };
    return "daemon off;\nmaster_process off;\npid nginx.pid;\nerror_log error.log;\n"
           "events { worker_connections 128; }\n"
           "http {\n"
           "  access_log off;\n"
           "  gzip off;\n"
           "  client_body_temp_path body;\n  proxy_temp_path proxy;\n  fastcgi_temp_path fastcgi;\n"
           "  uwsgi_temp_path uwsgi;\n  scgi_temp_path scgi;\n"
           "  types { audio/mpeg mp3; text/plain txt; text/html html; audio/x-mpegurl m3u; video/x-ms-asf "
           "asf asx;\n"
           "    audio/x-ms-wax wax; video/x-ms-wvx wvx; }\n"
           "  default_type application/octet-stream;\n"
           "  server {\n    listen 127.0.0.1:" +
           std::to_string(port(kPlain)) +
           ";\n    root files;\n"
           "    location /unavailable { return 503; }\n"
           "    location /broken { return 500; }\n"
           "    location /forbidden { return 403; }\n"
           "    location /moved { return 302 /song.mp3; }\n"
           "    location /elsewhere { return 302 ftp://127.0.0.1/song.mp3; }\n"
           "    location /to-mms { return 302 \"mms://127.0.0.1/live stream\"; }\n"
           "    location /to-list { return 301 /station.m3u; }\n"
           "    location /circle { return 302 /circle; }\n"
           "    location /whole/ { alias files/; max_ranges 0; }\n"
           "  }\n" +
           tlsServer(port(kSecure), files.leaf) + tlsServer(port(kSelfSigned), files.selfSigned) +
           tlsServer(port(kWrongHost), files.wrongHostLeaf) +
           tlsServer(port(kOlder12), files.rsaLeaf(), kOlder) +
           tlsServer(port(kClientOnly), files.leaf,
                     std::string(kModern) + "    ssl_client_certificate " + files.ca.pem +
                         ";\n    ssl_verify_client on;\n") +
           "}\n";
}

void Nginx::addFile(const std::string& name, const std::string& content) const
{
    m_folder.write("files/" + name, content);
}

std::string Nginx::url(const char* scheme, Port port, const std::string& path) const
{
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(m_ports.at(port)) + path;
}

std::string Nginx::plain(const std::string& path) const
{
    return url("http", kPlain, path);
}

std::string Nginx::secure(const std::string& path) const
{
    return url("https", kSecure, path);
}

std::string Nginx::secureTls12(const std::string& path) const
{
    return url("https", kOlder12, path);
}

std::string Nginx::selfSigned(const std::string& path) const
{
    return url("https", kSelfSigned, path);
}

std::string Nginx::wrongHost(const std::string& path) const
{
    return url("https", kWrongHost, path);
}

std::string Nginx::clientOnly(const std::string& path) const
{
    return url("https", kClientOnly, path);
}

std::string Nginx::secureToPlain(const std::string& path) const
{
    return url("https", kPlain, path);
}

} // namespace support
