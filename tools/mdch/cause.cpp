#include "cause.h"

#include "trace.h"

#include <cstdio>

namespace mdch {

namespace {

// Behind the words; empty when the line does not hold them.
std::string behind(std::string_view line, std::string_view words)
{
    const std::size_t place = line.find(words);
    return place != std::string_view::npos ? std::string(line.substr(place + words.size())) : std::string();
}

} // namespace

CauseListener::CauseListener()
{
    observeFailures([this](std::string_view line) { listen(line); });
}

CauseListener::~CauseListener()
{
    observeFailures(nullptr);
}

Cause CauseListener::cause() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_cause;
}

void CauseListener::listen(std::string_view line)
{
    const std::string certificate = behind(line, "(): verify cert failed: ");
    const std::string error = behind(line, "(): received error on fd ");
    int result = 0;
    int code = 0;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!certificate.empty()) {
        m_cause.certificate = certificate.substr(0, certificate.rfind(" ("));
    } else if (std::sscanf(error.c_str(), "%*d (%d=>%d)", &result, &code) == 2) {
        m_cause.result = result;
        m_cause.code = code;
    }
}

} // namespace mdch
