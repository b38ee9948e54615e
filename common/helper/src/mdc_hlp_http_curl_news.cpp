#include "mdc_hlp_http_curl_news.h"

#include <algorithm>
#include <new>

namespace md {

namespace {

thread_local PassNews* t_current = nullptr; // of the worker's thread, during its pass

// Whether somebody is to be woken for the news, which are none any more.
bool takeNews(MdchCurlDescriptor_struct& desc)
{
    const bool isDue = desc.news == MdchNews::kForAll ||
                       (desc.news == MdchNews::kData && bufferedBytes(desc) >= desc.wantedBytes);
    desc.news = MdchNews::kNone;
    if (isDue) {
        desc.wantedBytes = 0; // whoever goes on waiting says anew what for
    }
    return isDue;
}

} // namespace

PassNews::~PassNews()
{
    if (t_current == this) {
        t_current = nullptr;
    }
}

void PassNews::begin()
{
    t_current = this;
}

void PassNews::tell()
{
    t_current = nullptr;
    for (const MdchDescriptorPtr& desc : m_descriptors) {
        MdpLock lock = lockDescriptor(*desc);
        const bool isDue = takeNews(*desc);
        lock.unlock();
        if (isDue) {
            pthread_cond_broadcast(&desc->cond); // unlocked: a woken reader would run into the lock
        }
    }
    m_descriptors.clear();
}

// False: there is no memory for it.
bool PassNews::note(const MdchDescriptorPtr& desc)
{
    try {
        m_descriptors.push_back(desc);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void PassNews::add(const MdchDescriptorPtr& desc, MdchNews news)
{
    const bool isNoted = desc->news != MdchNews::kNone;
    desc->news = std::max(desc->news, news);
    if (!isNoted && (t_current == nullptr || !t_current->note(desc)) && takeNews(*desc)) {
        pthread_cond_broadcast(&desc->cond);
    }
}

void tellOfData(const MdchDescriptorPtr& desc)
{
    PassNews::add(desc, MdchNews::kData);
}

void tellAll(const MdchDescriptorPtr& desc)
{
    PassNews::add(desc, MdchNews::kForAll);
}

void wantBytes(MdchCurlDescriptor_struct& desc, std::size_t count)
{
    // A reader that waited for all that fits would be woken by the pause of the transfer only.
    const std::size_t half = (desc.ringBuffer.usedBytes() + desc.ringBuffer.availableBytes()) / 2;
    const std::size_t wanted = std::min(count, half);
    desc.wantedBytes = desc.wantedBytes == 0 ? wanted : std::min(desc.wantedBytes, wanted);
}

} // namespace md
