// Random operations on a stream and on a local copy of what it reads, compared after each.
#pragma once

#include "servers.h"

#include "mdc_hlp_http_access.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

// The stream and the copy differ.
class Difference : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The last operations, for the report of a failure. Any thread.
class History
{
public:
    static constexpr std::size_t kKept = 30;

    void begin(std::string operation);
    void addResult(const std::string& result);
    std::uint64_t count() const;
    std::vector<std::string> last() const;

private:
    mutable std::mutex m_mutex;
    std::deque<std::string> m_last;
    std::uint64_t m_count = 0;
};

class Operations
{
public:
    Operations(const Kind& kind, const TestedServer& server, std::uint32_t seed, History& history);

    // Throws Difference.
    void next();

    std::uint64_t bytesRead() const { return m_bytesRead; }

private:
    void reopen();
    void read();
    void readWithoutWaiting();
    void getOne();
    void seek();
    void ask();
    void askEof();
    void pause();
    void resume();
    void pauseForLong();

    // Takes bytes that a read delivered at m_position.
    void take(const std::vector<unsigned char>& bytes, std::size_t wanted);
    void takeShort(std::size_t count, std::size_t wanted);
    void recover();
    void expectPosition();
    void demand(bool holds, const std::string& what) const;
    std::uint64_t left() const;
    long long pickTarget();
    long long upTo(long long most);

    const Kind& m_kind;
    const TestedServer& m_server;
    History& m_history;
    std::mt19937_64 m_random;
    std::unique_ptr<md::HttpAccess> m_stream;
    int m_number = -1;
    long long m_position = 0; // of the copy
    bool m_ended = false;     // a read met the end, and nothing has moved the stream since
    std::uint64_t m_bytesRead = 0;
};
