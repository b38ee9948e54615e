// FFmpeg's I/O layer.
#include "loads.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
}
#include <stdexcept>

namespace {

class AvioStream : public bench::Stream
{
public:
    explicit AvioStream(const bench::Options& options) : m_options(options) {}
    ~AvioStream() override { close(); }

    void open(const std::string& url) override
    {
        AVDictionary* settings = nullptr;
        if (!m_options.trusted.empty()) {
            av_dict_set(&settings, "ca_file", (m_options.trusted + "/cert.pem").c_str(), 0);
            av_dict_set(&settings, "tls_verify", "1", 0);
        }
        const int result = avio_open2(&m_context, url.c_str(), AVIO_FLAG_READ, nullptr, &settings);
        av_dict_free(&settings);
        expectWorks(result);
    }
    std::size_t read(unsigned char* block, std::size_t size) override
    {
        const int count = avio_read(m_context, block, static_cast<int>(size));
        if (count == AVERROR_EOF) {
            return 0;
        }
        expectWorks(count);
        return static_cast<std::size_t>(count);
    }
    void seek(long long offset, std::size_t /*room*/) override
    {
        expectWorks(avio_seek(m_context, offset, SEEK_SET));
    }
    void skip(std::size_t count) override
    {
        expectWorks(avio_skip(m_context, static_cast<std::int64_t>(count)));
    }
    void close() override { avio_closep(&m_context); }

private:
    static void expectWorks(std::int64_t result)
    {
        if (result < 0) {
            throw std::runtime_error("FFmpeg: error " + std::to_string(result));
        }
    }

    const bench::Options& m_options;
    AVIOContext* m_context = nullptr;
};

} // namespace

int main(int argc, char** argv)
{
    avformat_network_init();
    return bench::runContestant(
        "avio", bench::pullLoads([](const bench::Options& options) -> std::unique_ptr<bench::Stream> {
            return std::make_unique<AvioStream>(options);
        }),
        argc, argv);
}
