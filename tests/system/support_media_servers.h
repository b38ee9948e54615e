// Media servers of a test's own: MiniDLNA, Gerbera and Rygel, each with a folder of media that it lists.
#pragma once

#include "support/network_namespace.h"
#include "support_servers.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support {

// Makes the media in the folder of that path.
using PutMedia = std::function<void(const std::string&)>;

class MediaServer : public LocalServer
{
public:
    // Where an item lies, by the ending of its address.
    std::string item(const std::string& ending) const { return m_items.at(ending); }
    // The only one's.
    const std::string& onlyItem() const { return m_first; }

    // A medium as it was put there.
    std::string file(const std::string& name) const { return folder().file("media/" + name); }

    // "http://ADDRESS:PORT"
    virtual std::string base() const { return url(""); }

protected:
    // control: the path of the content directory's control; root: the container that the media are in or below.
    MediaServer(const std::string& name, const PutMedia& putMedia, std::string control, std::string root);

    bool isReady() override;
    bool lists(const std::string& ending) const { return m_items.count(ending) > 0; }
    std::string mediaFolder() const { return folder().file("media"); }

private:
    void findItems(const std::string& container, int depth);
    std::string browse(const std::string& container) const;

    std::string m_control;
    std::string m_root;
    std::size_t m_files = 0;
    std::map<std::string, std::string> m_items;
    std::string m_first;
};

class MiniDlna : public MediaServer
{
public:
    explicit MiniDlna(const PutMedia& putMedia);

private:
    bool isReady() override;
    std::vector<std::string> command() override;
};

// A network of the test's own with an interface that media servers take for a real one: they refuse loopback, or
// open sockets on every interface. Streams go to it when the library's thread was started inside.
class MediaNetwork
{
public:
    MediaNetwork(); // throws Unavailable

    static constexpr const char* kInterface = "media";
    static constexpr const char* kAddress = "10.1.0.1";

private:
    NetworkNamespace m_network;
};

class Gerbera : public MediaServer
{
public:
    explicit Gerbera(const PutMedia& putMedia); // in a MediaNetwork
    std::string base() const override;

private:
    std::vector<std::string> command() override;

    int m_port = 49200; // it takes none below 49152; the network is its own
};

// With its transcoder: beside each song there is an item that ends in "mp3", made while it is sent.
class Rygel : public MediaServer
{
public:
    explicit Rygel(const PutMedia& putMedia); // in a MediaNetwork; throws Unavailable
    std::string address() const override { return MediaNetwork::kAddress; }

private:
    std::vector<std::string> command() override;
};

} // namespace support
