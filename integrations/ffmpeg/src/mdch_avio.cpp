#include "mdch_avio.h"

#include "avio_reader.h"

#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

namespace {

constexpr int kBufferSize = 32768;

struct FreeMemory
{
    void operator()(void* memory) const { av_free(memory); }
};

struct FreeContext
{
    void operator()(AVIOContext* context) const
    {
        av_freep(&context->buffer); // it may have been replaced by a larger one
        avio_context_free(&context);
    }
};

// What a context's "opaque" is.
struct Opaque
{
    Opaque(avio::Settings settings, AVIOInterruptCB interrupt) : reader(std::move(settings), interrupt) {}

    avio::Reader reader;
    std::unique_ptr<AVIOContext, FreeContext> context;

    // The stream's abilities may be others behind an operation: a server may turn out to ignore ranges.
    void showAbilities()
    {
        const avio::Abilities abilities = reader.abilities();
        context->seekable = (abilities.seekable ? AVIO_SEEKABLE_NORMAL : 0) |
                            (abilities.timeSeekable ? AVIO_SEEKABLE_TIME : 0);
    }
};

Opaque& stateOf(void* opaque)
{
    return *static_cast<Opaque*>(opaque);
}

// No exception passes through FFmpeg's frames.
template <class Result, class Action>
Result guarded(Action action)
try {
    return action();
} catch (const std::bad_alloc&) {
    return AVERROR(ENOMEM);
} catch (const std::system_error& failure) { // no thread
    return AVERROR(failure.code().value());
}

int readPacket(void* opaque, std::uint8_t* buffer, int size)
{
    return guarded<int>([&] { return stateOf(opaque).reader.read(buffer, size); });
}

std::int64_t seekBytes(void* opaque, std::int64_t offset, int whence)
{
    return guarded<std::int64_t>([&] {
        Opaque& state = stateOf(opaque);
        const std::int64_t result = state.reader.seek(offset, whence & ~AVSEEK_FORCE);
        state.showAbilities();
        return result;
    });
}

std::int64_t seekTime(void* opaque, int streamIndex, std::int64_t timestamp, int flags)
{
    constexpr std::int64_t kMicrosecondsPerStep = 100000; // what servers understand: tenths of a second
    constexpr std::int64_t kMillisecondsPerStep = 100;
    if (streamIndex >= 0 || (flags & AVSEEK_FLAG_BYTE) != 0) {
        return AVERROR(ENOTSUP);
    }
    const std::int64_t milliseconds = timestamp / kMicrosecondsPerStep * kMillisecondsPerStep;
    if (timestamp < 0 || milliseconds > std::numeric_limits<std::uint32_t>::max()) {
        return AVERROR(EINVAL);
    }
    return guarded<std::int64_t>([&]() -> std::int64_t {
        Opaque& state = stateOf(opaque);
        const int result = state.reader.seekTime(static_cast<std::uint32_t>(milliseconds));
        if (result == 0) {
            state.context->eof_reached = 0; // avio_seek_time leaves it, and nothing would be read any more
        }
        state.showAbilities();
        return result;
    });
}

int pauseOrGoOn(void* opaque, int pause)
{
    return guarded<int>([&] { return stateOf(opaque).reader.setPaused(pause != 0); });
}

int open(AVIOContext*& result, const char* url, const mdchAvioOptions* options,
         const AVIOInterruptCB* interrupt, int bufferSize)
{
    avio::Settings settings;
    const int taken = avio::takeOptions(url, options, settings);
    if (taken < 0) {
        return taken;
    }
    const AVIOInterruptCB asks = interrupt != nullptr ? *interrupt : AVIOInterruptCB{nullptr, nullptr};
    auto state = std::make_unique<Opaque>(std::move(settings), asks);
    const int opened = state->reader.open();
    if (opened < 0) {
        return opened;
    }
    const int size = bufferSize > 0 ? bufferSize : kBufferSize;
    std::unique_ptr<unsigned char, FreeMemory> buffer(
        static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(size))));
    if (buffer == nullptr) {
        return AVERROR(ENOMEM);
    }
    state->context.reset(
        avio_alloc_context(buffer.get(), size, 0, state.get(), readPacket, nullptr, seekBytes));
    if (state->context == nullptr) {
        return AVERROR(ENOMEM);
    }
    static_cast<void>(buffer.release()); // the context's
    state->showAbilities();
    if (state->reader.abilities().timeSeekable) {
        state->context->read_seek = seekTime;
    }
    if (state->reader.abilities().network) {
        state->context->read_pause = pauseOrGoOn;
    }
    result = state.release()->context.get();
    return 0;
}

} // namespace

extern "C" int mdchAvioOpen(AVIOContext** context, const char* url, const mdchAvioOptions* options,
                            const AVIOInterruptCB* interrupt, int bufferSize)
{
    if (context == nullptr) {
        return AVERROR(EINVAL);
    }
    *context = nullptr;
    if (url == nullptr) {
        return AVERROR(EINVAL);
    }
    return guarded<int>([&] { return open(*context, url, options, interrupt, bufferSize); });
}

extern "C" void mdchAvioClose(AVIOContext** context)
{
    if (context == nullptr || *context == nullptr) {
        return;
    }
    const std::unique_ptr<Opaque> state(&stateOf((*context)->opaque));
    *context = nullptr;
}
