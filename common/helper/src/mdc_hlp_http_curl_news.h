/*
 * What a pass of the worker brings, and who is told of it.
 *
 * Waking a thread costs as much as receiving a block. So the worker's callbacks only note what came, and the waiting
 * readers are told once, at the end of the pass; one that misses more bytes than have come is not woken for them.
 */
#ifndef MDC_HLP_HTTP_CURL_NEWS_H
#define MDC_HLP_HTTP_CURL_NEWS_H

#include "mdc_hlp_http_curl.h"

#include <vector>

namespace md {

/* The news of one pass. Used by the worker's thread alone. */
class PassNews
{
public:
    PassNews() = default;
    ~PassNews();
    PassNews(const PassNews&) = delete;
    PassNews& operator=(const PassNews&) = delete;

    /* From here to tell, what happens on this thread is noted here. */
    void begin();

    /* Tells whoever waits for what happened. Caller holds no descriptor's lock. */
    void tell();

private:
    friend void tellOfData(const MdchDescriptorPtr& desc);
    friend void tellAll(const MdchDescriptorPtr& desc);

    static void add(const MdchDescriptorPtr& desc, MdchNews news);
    bool note(const MdchDescriptorPtr& desc);

    std::vector<MdchDescriptorPtr> m_descriptors;
};

/*
 * Tells the readers that bytes have been stored, if what is there is enough for one of them. Here and in tellAll: at
 * the end of the worker's pass, or at once on a thread without one. Caller holds the descriptor's mutex.
 */
void tellOfData(const MdchDescriptorPtr& desc);

/* Tells everybody who waits on the descriptor: a header block, a pause or the end has come. */
void tellAll(const MdchDescriptorPtr& desc);

/*
 * To be called by a reader before it waits for data: it wants to be woken once that many bytes, or half the buffer,
 * are there, or for any other reason. Caller holds the descriptor's mutex.
 */
void wantBytes(MdchCurlDescriptor_struct& desc, std::size_t count);

} // namespace md

#endif
