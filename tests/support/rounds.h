// How many rounds random and repeating tests make.
#pragma once

namespace support {

// A tenth of the rounds where an emulated processor makes each of them slow.
constexpr int emulatedRounds(int rounds)
{
#if defined(MDC_EMULATED)
    return rounds / 10;
#else
    return rounds;
#endif
}

// The same also where a sanitizer does.
constexpr int randomRounds(int rounds)
{
#if defined(MDC_SANITIZED)
    return rounds / 10;
#else
    return emulatedRounds(rounds);
#endif
}

} // namespace support
