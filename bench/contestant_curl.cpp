// libcurl's easy interface, as it is used best: bytes are counted where libcurl hands them over, copied nowhere.
#include "contestant.h"

#include <algorithm>
#include <curl/curl.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace {

using bench::Clock;
using bench::Options;
using bench::Report;

// What comes in, and perhaps at which pace.
class Transfer
{
public:
    explicit Transfer(const Options& options) : m_easy(curl_easy_init(), curl_easy_cleanup)
    {
        if (m_easy == nullptr) {
            throw std::runtime_error("no handle");
        }
        set(CURLOPT_URL, options.url.c_str());
        set(CURLOPT_BUFFERSIZE, static_cast<long>(options.block));
        set(CURLOPT_WRITEFUNCTION, take);
        set(CURLOPT_WRITEDATA, this);
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_FAILONERROR, 1L);
        set(CURLOPT_PROXY, "");
        if (!options.trusted.empty()) {
            set(CURLOPT_CAINFO, (options.trusted + "/cert.pem").c_str());
        }
    }

    template <class Value>
    void set(CURLoption option, Value value)
    {
        if (curl_easy_setopt(m_easy.get(), option, value) != CURLE_OK) {
            throw std::runtime_error("an option that libcurl does not take");
        }
    }

    // Up to limit bytes (0: all); at rate bytes per second, if that is not 0.
    void run(long long limit = 0, double rate = 0)
    {
        m_bytes = 0;
        m_limit = limit;
        m_rate = rate;
        m_start = Clock::now();
        const CURLcode code = curl_easy_perform(m_easy.get());
        const bool cutOff = code == CURLE_WRITE_ERROR && m_limit > 0 && m_bytes >= m_limit;
        if (code != CURLE_OK && !cutOff) {
            throw std::runtime_error(curl_easy_strerror(code));
        }
    }

    long long bytes() const { return m_bytes; }

private:
    static std::size_t take(char* /*bytes*/, std::size_t size, std::size_t count, void* context)
    {
        auto& self = *static_cast<Transfer*>(context);
        self.m_bytes += static_cast<long long>(size * count);
        if (self.m_rate > 0) {
            std::this_thread::sleep_until(
                self.m_start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                                   static_cast<double>(self.m_bytes) / self.m_rate)));
        }
        return self.m_limit > 0 && self.m_bytes >= self.m_limit ? 0 : size * count;
    }

    std::unique_ptr<CURL, void (*)(CURL*)> m_easy;
    long long m_bytes = 0;
    long long m_limit = 0;
    double m_rate = 0;
    Clock::time_point m_start;
};

void count(const Transfer& transfer, Report& report)
{
    report.addBytes(static_cast<std::size_t>(transfer.bytes()));
}

void readBodies(const Options& options, Report& report)
{
    for (int i = 0; i < options.repeat; ++i) {
        Transfer transfer(options);
        transfer.run();
        count(transfer, report);
    }
}

// One handle, so that its connection is used again. bounded: the server is told where to stop; otherwise the transfer
// is cut off behind the block, and with it the connection, as in a player that does not know how much it will want.
void seekAround(const Options& options, Report& report, bool bounded)
{
    Transfer transfer(options);
    transfer.set(CURLOPT_RANGE, "0-0");
    transfer.run();
    report.restart();
    const auto block = static_cast<long long>(options.block);
    for (const long long offset : bench::seekOffsets(options, options.block)) {
        const std::string range =
            std::to_string(offset) + "-" + (bounded ? std::to_string(offset + block - 1) : "");
        const Clock::time_point start = Clock::now();
        transfer.set(CURLOPT_RANGE, range.c_str());
        transfer.run(bounded ? 0 : block);
        report.addLatency("seek", bench::secondsSince(start) * 1e6);
        if (transfer.bytes() < block) {
            throw std::runtime_error("a short read behind a seek");
        }
        report.addBytes(options.block);
    }
}

// What is skipped comes all the same.
void skipForward(const Options& options, Report& report)
{
    Transfer transfer(options);
    const long long stride = 3 * static_cast<long long>(options.block);
    transfer.run(options.size / stride * stride);
    report.addBytes(static_cast<std::size_t>(options.size / stride) * options.block);
}

void openOften(const Options& options, Report& report)
{
    Transfer transfer(options);
    for (int i = 0; i < options.count; ++i) {
        const Clock::time_point start = Clock::now();
        transfer.run();
        report.addLatency("open", bench::secondsSince(start) * 1e6);
        count(transfer, report);
    }
}

// A thread for each, as the easy interface wants it.
void readStreams(const Options& options, Report& report)
{
    Transfer(options).run(static_cast<long long>(options.block));
    report.markMemory();
    std::vector<std::unique_ptr<Transfer>> transfers;
    for (int i = 0; i < options.streams; ++i) {
        transfers.push_back(std::make_unique<Transfer>(options));
    }
    std::mutex guard;
    std::string failure;
    std::vector<std::thread> threads;
    threads.reserve(transfers.size());
    report.restart();
    for (const std::unique_ptr<Transfer>& transfer : transfers) {
        threads.emplace_back([&] {
            try {
                transfer->run(options.length, options.rate);
            } catch (const std::exception& error) {
                const std::lock_guard<std::mutex> lock(guard);
                failure = error.what();
            }
        });
    }
    report.set("threads", static_cast<double>(bench::statusFigure("Threads")));
    for (std::thread& thread : threads) {
        thread.join();
    }
    report.stop();
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    for (const std::unique_ptr<Transfer>& transfer : transfers) {
        report.addBytes(static_cast<std::size_t>(
            options.length > 0 ? std::min(transfer->bytes(), options.length) : transfer->bytes()));
    }
}

} // namespace

int main(int argc, char** argv)
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return bench::runContestant(
        "curl",
        {{"body", readBodies},
         {"seek", [](const Options& options, Report& report) { seekAround(options, report, true); }},
         {"seek-cut-off", [](const Options& options, Report& report) { seekAround(options, report, false); }},
         {"skip", skipForward},
         {"open", openOften},
         {"streams", readStreams},
         {"paced", readStreams}},
        argc, argv);
}
