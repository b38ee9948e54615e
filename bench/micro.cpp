// What the small parts cost: the ring buffer, a response's header lines, URLs, a playlist, a trace line that does not
// pass.
#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_playlist.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"
#include "mdp_ringbuffer.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBufferSize = 196608; // a stream's own

// In as libcurl delivers, out as a player reads.
void ringBuffer(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    std::vector<unsigned char> memory(kBufferSize);
    std::vector<unsigned char> block(size);
    MdpRingBuffer buffer;
    buffer.init(memory.data(), memory.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(buffer.enqueue(block.data(), block.size()));
        benchmark::DoNotOptimize(buffer.dequeue(block.data(), block.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ringBuffer)->Arg(1460)->Arg(16384)->Arg(65536);

// The answer of a media server, line by line as libcurl gives them.
void headerLines(benchmark::State& state)
{
    constexpr std::int32_t kNumber = 7;
    const std::vector<std::string> lines = {"HTTP/1.1 206 Partial Content\r\n",
                                            "Server: nginx/1.22.1\r\n",
                                            "Date: Thu, 01 Jan 1970 00:00:00 GMT\r\n",
                                            "Content-Type: video/mpeg\r\n",
                                            "Content-Length: 4000000\r\n",
                                            "Connection: keep-alive\r\n",
                                            "Accept-Ranges: bytes\r\n",
                                            "contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
                                            "DLNA.ORG_FLAGS=01700000000000000000000000000000\r\n",
                                            "Content-Range: bytes 1000-4000999/4001000\r\n",
                                            "\r\n"};
    const md::MdchDescriptorPtr desc = boost::make_shared<md::MdchCurlDescriptor_struct>();
    desc->fd = kNumber;
    desc->easy = curl_easy_init();
    desc->requestedStart = 1000;
    mdchHttpCurl_addDescriptor(desc);
    for (auto _ : state) {
        for (const std::string& line : lines) {
            std::string bytes = line;
            benchmark::DoNotOptimize(
                mdchHttpCurl_headerCallback(bytes.data(), 1, bytes.size(), md::numberAsPointer(kNumber)));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(lines.size()));
    md::unregisterDescriptor(*desc);
    curl_easy_cleanup(desc->easy);
    desc->easy = nullptr;
}
BENCHMARK(headerLines);

const std::string kUrl =
    "http://media.example/music/Jos\xC3\xA9's songs/01 - a song [live].mp3?quality=high&start=1";

void urlPatch(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(md::urlPatch(kUrl));
    }
}
BENCHMARK(urlPatch);

void urlEncode(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(md::urlEncode(kUrl));
    }
}
BENCHMARK(urlEncode);

void m3u(benchmark::State& state)
{
    std::string text = "#EXTM3U\n";
    for (int item = 0; item < 100; ++item) {
        const std::string number = std::to_string(item);
        text += "#EXTINF:215,An artist - A title " + number + "\nmusic/an album/" + number + ".mp3\n";
    }
    const std::vector<unsigned char> data(text.begin(), text.end());
    for (auto _ : state) {
        std::list<md::PlaylistEntry> entries;
        std::string name;
        benchmark::DoNotOptimize(parseM3uBufferToPlaylist("http://media.example/lists/all.m3u", data,
                                                          md::kConversionNone, entries, name));
        if (entries.size() != 100) {
            state.SkipWithError("not all items");
        }
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(m3u);

void traceThatDoesNotPass(benchmark::State& state)
{
    for (auto _ : state) {
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called.\n", MDCH_HERE);
    }
}
BENCHMARK(traceThatDoesNotPass);

} // namespace

BENCHMARK_MAIN();
