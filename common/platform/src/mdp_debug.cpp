#include "mdp_debug.h"

#include "mdp_debug_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <vector>

namespace {

constexpr unsigned int kSeverityMask = 0xffff;
constexpr unsigned int kStartSeverity = 1000;

// Recursive, because a sink may trace. Held during the sink's call, so that mdpDebugSetSink returns only
// when the former sink has finished.
struct Output
{
    std::recursive_mutex mutex;
    mdpDebugSink sink = mdpDebugOutput;
    void* context = nullptr;
};

std::atomic<unsigned int> g_severity{kStartSeverity};

// Never destroyed: the worker thread and other libraries' exit handlers may still trace while static
// objects go. Not from the heap: the first line may be that there is no memory.
Output& output()
{
    alignas(Output) static std::array<unsigned char, sizeof(Output)> place;
    static auto* instance = new (place.data()) Output;
    return *instance;
}

void emit(unsigned int level, const char* text)
{
    Output& out = output();
    const std::lock_guard<std::recursive_mutex> lock(out.mutex);
    out.sink(out.context, level, text);
}

void hexLine(unsigned int level, size_t offset, const unsigned char* bytes, size_t count)
{
    constexpr size_t kPerLine = 16;
    std::array<char, 128> line{};
    size_t used = static_cast<size_t>(std::snprintf(line.data(), line.size(), "%08zx ", offset));
    for (size_t i = 0; i < kPerLine; ++i) {
        const size_t room = line.size() - used;
        used += static_cast<size_t>(i < count ? std::snprintf(line.data() + used, room, " %02x", bytes[i])
                                              : std::snprintf(line.data() + used, room, "   "));
    }
    used += static_cast<size_t>(std::snprintf(line.data() + used, line.size() - used, "  |"));
    for (size_t i = 0; i < count; ++i) {
        line[used++] = std::isprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
    }
    std::snprintf(line.data() + used, line.size() - used, "|\n");
    emit(level, line.data());
}

} // namespace

void mdpDebugSetSeverity(unsigned int severity)
{
    g_severity.store(severity, std::memory_order_relaxed);
}

void mdpDebugSetSink(mdpDebugSink sink, void* context)
{
    Output& out = output();
    const std::lock_guard<std::recursive_mutex> lock(out.mutex);
    out.sink = sink != nullptr ? sink : mdpDebugOutput;
    out.context = sink != nullptr ? context : nullptr;
}

int mdpDebugCheck(unsigned int level)
{
    const unsigned int limit = g_severity.load(std::memory_order_relaxed);
    return limit != 0 && (level & kSeverityMask) <= limit ? 1 : 0;
}

void mdpDebugPrintf(unsigned int level, const char* format, ...)
{
    if (mdpDebugCheck(level) == 0) {
        return;
    }
    std::array<char, 1024> buffer{};
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < buffer.size()) {
        emit(level, buffer.data());
    } else if (length >= 0) {
        try {
            std::vector<char> large(static_cast<size_t>(length) + 1);
            std::vsnprintf(large.data(), large.size(), format, again);
            emit(level, large.data());
        } catch (const std::bad_alloc&) {
            emit(level, buffer.data()); // the cut text says more than none
        }
    }
    va_end(again);
    va_end(arguments);
}

void mdpDebugHexDump(unsigned int level, const void* data, size_t size)
{
    if (data == nullptr || mdpDebugCheck(level) == 0) {
        return;
    }
    constexpr size_t kPerLine = 16;
    const std::lock_guard<std::recursive_mutex> lock(output().mutex); // keeps the lines of one dump together
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t offset = 0; offset < size; offset += kPerLine) {
        hexLine(level, offset, bytes + offset, std::min(kPerLine, size - offset));
    }
}
