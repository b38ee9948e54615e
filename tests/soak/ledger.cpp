#include "ledger.h"

#include "mdc_hlp_http_curl_engine.h"
#include "mdp_debug.h"
#include "support/trace_capture.h"
#include "support/wait.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <utility>

namespace {

constexpr unsigned int kFailures = 3000;
constexpr unsigned int kOrdinarySeverity = 1000;
constexpr std::size_t kKept = 40;
constexpr std::chrono::milliseconds kPatience{60000};

thread_local Fault* currentFault = nullptr;

bool isRegistered(int number)
{
    const md::MdchDescriptorPtr found = md::nextDescriptor(number - 1);
    return found != nullptr && found->fd == number;
}

} // namespace

Ledger::Ledger()
{
    mdpDebugSetSink(&Ledger::sink, this);
    mdpDebugSetSeverity(kFailures);
}

Ledger::~Ledger()
{
    mdpDebugSetSeverity(kOrdinarySeverity);
    mdpDebugSetSink(nullptr, nullptr);
}

std::string Ledger::normal(const std::string& text, std::optional<int>& number)
{
    std::string line = support::TraceCapture::withoutLineNumber(text);
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    for (const char* word : {"fd ", "fd: ", "fd=", "descriptor "}) {
        const std::size_t at = line.find(word);
        const std::size_t begin = at == std::string::npos ? at : at + std::string(word).size();
        if (begin == std::string::npos || begin >= line.size()) {
            continue;
        }
        const std::size_t end = std::min(line.find_first_not_of("0123456789", begin), line.size());
        if (end > begin) {
            number = std::stoi(line.substr(begin, end - begin));
            return line.substr(0, begin) + "#" + line.substr(end);
        }
    }
    return line;
}

void Ledger::sink(void* self, unsigned int /*level*/, const char* text)
{
    static_cast<Ledger*>(self)->take(text);
}

void Ledger::take(const std::string& text)
{
    std::optional<int> number;
    std::string line = normal(text, number);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (number) {
        m_streams[*number].lines.push_back(std::move(line));
    } else if (currentFault != nullptr) {
        currentFault->m_said.push_back(std::move(line));
    } else {
        m_loose.push_back(std::move(line));
    }
}

void Ledger::addUnexplained(const std::string& line)
{
    ++m_unexplainedCount;
    if (m_unexplained.size() < kKept) {
        m_unexplained.push_back(line);
    }
}

void Ledger::closeAll()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [number, stream] : m_streams) {
        for (const std::string& line : stream.lines) {
            addUnexplained(line + " (stream " + std::to_string(number) + ")");
        }
    }
    m_streams.clear();
    for (const std::string& line : m_loose) {
        addUnexplained(line);
    }
    m_loose.clear();
}

std::map<std::string, Ledger::Count> Ledger::counts() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_counts;
}

std::uint64_t Ledger::caused() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::accumulate(m_counts.begin(), m_counts.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& kind) { return sum + kind.second.caused; });
}

std::uint64_t Ledger::unexplainedCount() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_unexplainedCount;
}

std::vector<std::string> Ledger::unexplained() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_unexplained;
}

bool Ledger::hasAll(const Stream& stream, const std::vector<std::string>& lines)
{
    return std::all_of(lines.begin(), lines.end(), [&stream](const std::string& line) {
        return std::find(stream.lines.begin(), stream.lines.end(), line) != stream.lines.end();
    });
}

Fault::Fault(Ledger& ledger, std::string kind) : m_ledger(ledger), m_kind(std::move(kind))
{
    currentFault = this;
}

Fault::~Fault()
{
    if (!m_settled) {
        settle();
    }
}

Fault& Fault::must(std::string line)
{
    m_must.push_back(std::move(line));
    return *this;
}

Fault& Fault::may(std::string line)
{
    m_may.push_back(std::move(line));
    return *this;
}

Fault& Fault::says(std::string line)
{
    m_says.push_back(std::move(line));
    return *this;
}

Fault& Fault::elsewhere(std::string line)
{
    m_elsewhere.push_back(std::move(line));
    return *this;
}

// The stream's number, once it has the lines that must come.
std::optional<int> Fault::findStream(std::optional<int> number)
{
    std::optional<int> found;
    support::waitUntil(
        [&] {
            const std::lock_guard<std::mutex> lock(m_ledger.m_mutex);
            for (auto& [key, stream] : m_ledger.m_streams) {
                const bool fits = number ? key == *number : !stream.claimed;
                if (fits && Ledger::hasAll(stream, m_must)) {
                    stream.claimed = true;
                    found = key;
                    return true;
                }
            }
            return false;
        },
        kPatience);
    return found;
}

// The ledger's mutex is held.
bool Fault::explain(std::vector<std::string> came, std::vector<std::string> must,
                    const std::vector<std::string>& may)
{
    must.insert(must.end(), may.begin(), may.end());
    bool all = true;
    for (const std::string& line : came) {
        const auto at = std::find(must.begin(), must.end(), line);
        if (at != must.end()) {
            must.erase(at);
        } else {
            all = false;
            m_ledger.addUnexplained(line + " (fault: " + m_kind + ")");
        }
    }
    for (const std::string& line : may) { // what is left of these does no harm
        const auto at = std::find(must.begin(), must.end(), line);
        if (at != must.end()) {
            must.erase(at);
        }
    }
    for (const std::string& line : must) {
        all = false;
        m_ledger.addUnexplained("missing: " + line + " (fault: " + m_kind + ")");
    }
    return all;
}

void Fault::settle(std::optional<int> number)
{
    m_settled = true;
    currentFault = nullptr;
    if (!m_must.empty()) {
        const std::optional<int> found = findStream(number);
        number = found ? found : number;
    }
    if (number) {
        support::waitUntil([&] { return !isRegistered(*number); }, kPatience);
    }
    const std::lock_guard<std::mutex> lock(m_ledger.m_mutex);
    std::vector<std::string> lines;
    if (number) {
        lines.swap(m_ledger.m_streams[*number].lines);
        m_ledger.m_streams.erase(*number);
    }
    const bool stream = explain(lines, m_must, m_may);
    for (const std::string& line : m_elsewhere) { // traced before the end of the stream, if at all
        const auto at = std::find(m_ledger.m_loose.begin(), m_ledger.m_loose.end(), line);
        if (at != m_ledger.m_loose.end()) {
            m_ledger.m_loose.erase(at);
            m_said.push_back(line);
        }
    }
    m_says.insert(m_says.end(), m_elsewhere.begin(), m_elsewhere.end());
    const bool thread = explain(m_said, m_says, {});
    Ledger::Count& count = m_ledger.m_counts[m_kind];
    ++count.caused;
    count.matched += stream && thread ? 1 : 0;
}
