// An HTTP stream opened, read, moved and closed while calls fail.
#pragma once

#include "each_call.h"
#include "mdc_hlp_url_base.h"
#include "support/media.h"

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

namespace faults {

// Walks over a stream and compares every byte with what stands there. Each step after a failure does nothing.
class StreamWalk
{
public:
    StreamWalk(support::Media media, long long size) : m_media(media), m_size(size) {}

    void open(const std::string& url, mdch_UrlExtended_struct options);
    void read(unsigned int count);
    void readToEnd();
    void seek(long long offset, int whence);
    void seekTime(unsigned int milliseconds, long long expectedPosition);
    void pauseAndResume();
    void close();

    const Outcome& outcome() const { return m_outcome; }

private:
    bool goesOn() const { return m_outcome.isRight() && m_stream != nullptr; }
    void fail(const std::string& what);  // an error was told
    void wrong(const std::string& what); // none was
    int errorOfStream();

    support::Media m_media;
    long long m_size;
    long long m_position = 0;
    boost::shared_ptr<MdchUrlBase> m_stream;
    Outcome m_outcome;
};

} // namespace faults
