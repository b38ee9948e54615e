/*
 * Inside md::IcyReader: where the next byte of the stream belongs, to the audio or to a block.
 */
#ifndef MDC_HLP_ICY_IMPL_H
#define MDC_HLP_ICY_IMPL_H

#include "mdc_hlp_icy.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace md {

struct IcyFields;

class IcyReaderImpl
{
public:
    using Clock = std::chrono::steady_clock;

    // now: the clock for the length of a call; tests have their own.
    IcyReaderImpl(boost::shared_ptr<MdchUrlBase> stream, int interval,
                  Clock::time_point (*now)() = &Clock::now);

    int read(unsigned char* buffer, unsigned int size);
    long long tell() const { return m_position; }
    const std::string& title() const { return m_title; }
    const std::string& url() const { return m_url; }
    std::vector<IcyTitle> takeChanges();

private:
    // What is read next in one go, and where to.
    struct Piece
    {
        unsigned char* place;
        unsigned int size;
    };

    static constexpr std::size_t kUnit = 16; // bytes of a block for each count of its length byte
    static constexpr std::size_t kLargestBlock = 255 * kUnit;

    bool isAtBlock() const { return m_interval > 0 && m_untilBlock == 0; }
    Piece nextOfBlock();
    Piece nextOfAudio(unsigned char* buffer, unsigned int missing) const;
    int readPiece(const Piece& piece);
    void takeOfBlock(unsigned int count);
    void takeOfAudio(unsigned int count);
    void announce();
    void apply(const IcyFields& fields);

    boost::shared_ptr<MdchUrlBase> m_stream;
    Clock::time_point (*m_now)();
    unsigned int m_interval;   // 0: there are no blocks
    unsigned int m_untilBlock; // bytes of audio before the next block; 0 with an interval: inside a block
    long long m_position = 0;

    unsigned char m_lengthByte = 0;
    std::size_t m_blockSize = 0; // 0: its length byte is not here yet
    std::size_t m_blockRead = 0;
    std::array<unsigned char, kLargestBlock> m_block{};

    std::string m_title;
    std::string m_url;
    std::vector<IcyTitle> m_changes; // not yet taken
};

} // namespace md

#endif
