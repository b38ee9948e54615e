// Content features and their neighbours as media servers send them, with what each allows worked out by hand.
#include "mdc_hlp_http_curl.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

// The bits of the capability mask.
constexpr std::uint32_t kNothing = 0;
constexpr std::uint32_t kByte = 1;
constexpr std::uint32_t kTime = 2;
constexpr std::uint32_t kStalling = 4;
constexpr std::uint32_t kEvery = kByte | kTime | kStalling;

// What a stream in a delivery mode counts as before the header: bytes and stalling.
constexpr std::uint32_t kAsked = kByte | kStalling;

struct Row
{
    const char* line;
    std::uint32_t allows;
};

// The digit that matters in the flags is the third: bit 21 is set in 2, 3, 6, 7, a, b, e and f.
const Row kImages[] = {
    {"contentFeatures.dlna.org: DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=00f00000000000000000000000000000",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=00;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=00D00000000000000000000000000000",
     kNothing},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=JPEG_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=00D00000000000000000000000000000",
     kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=JPEG_LRG;DLNA.ORG_CI=1", kNothing},
    {"contentfeatures.dlna.org: DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=00f00000000000000000000000000000",
     kByte | kStalling},
    {"ContentFeatures.DLNA.ORG: DLNA.ORG_PN=PNG_LRG;DLNA.ORG_OP=00;DLNA.ORG_FLAGS="
     "00900000000000000000000000000000",
     kNothing},
};

const Row kAudio[] = {
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MP3;DLNA.ORG_OP=11;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kEvery},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MP3;DLNA.ORG_OP=10;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000", // Rygel, transcoded
     kTime | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01", kByte}, // Rygel, mp3, ogg, ts
    {"CONTENTFEATURES.DLNA.ORG:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MP3", kNothing},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MP3X;DLNA.ORG_OP=01;DLNA.ORG_PS=-8\\,-4\\,2\\,4\\,8;"
     "DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01500000000000000000000000000000",
     kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=LPCM;DLNA.ORG_OP=10;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=01500000000000000000000000000000",
     kTime},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=LPCM;DLNA.ORG_OP=00;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=01300000000000000000000000000000",
     kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AAC_ISO;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=8D700000000000000000000000000000",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AAC_ISO_320;DLNA.ORG_OP=11;"
     "DLNA.ORG_FLAGS=8D500000000000000000000000000000",
     kByte | kTime},
    {"contentfeatures.dlna.org: DLNA.ORG_PN=WMABASE;DLNA.ORG_OP=01;DLNA.ORG_CI=0", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=WMABASE;DLNA.ORG_OP=00;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=ED100000000000000000000000000000",
     kNothing},
};

const Row kVideo[] = {
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MPEG_TS_SD_EU_ISO;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MPEG_TS_SD_EU_ISO;DLNA.ORG_OP=10;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=81500000000000000000000000000000",
     kTime},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000", // MiniDLNA, ts and ogg
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AVC_MP4_BL_CIF30_AAC_940;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000", // MiniDLNA, mp4
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AVC_MP4_BL_L3L_SD_AAC;DLNA.ORG_OP=01;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000", // Rygel, mp4
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AVC_MP4_MP_SD_AAC_MULT5;DLNA.ORG_OP=11;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=21F00000000000000000000000000000",
     kEvery},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=AVC_MP4_HP_HD_AAC; DLNA.ORG_OP=11; DLNA.ORG_CI=0", kByte | kTime},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MPEG_PS_PAL;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01500000000000000000000000000000",
     kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MPEG_PS_PAL;DLNA.ORG_PS=-64,-16,-4,-2,1/2,2,4,16,64;"
     "DLNA.ORG_CI=1;DLNA.ORG_OP=11;DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kEvery},
    {"contentFeatures.dlna.org: DLNA.ORG_FLAGS=01700000000000000000000000000000;DLNA.ORG_OP=10;"
     "DLNA.ORG_PN=MPEG_PS_NTSC", // flags first
     kTime | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MATROSKA;DLNA.ORG_OP=01;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000",
     kByte | kStalling},
    {"contentfeatures.dlna.org: DLNA.ORG_PN=MATROSKA;DLNA.ORG_OP=00;DLNA.ORG_CI=1;"
     "DLNA.ORG_FLAGS=01100000000000000000000000000000",
     kNothing},
    {"contentFeatures.dlna.org: DLNA.ORG_PN=MATROSKA;DLNA.ORG_CI=0;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000", // no operations
     kStalling},
};

const Row kOddities[] = {
    // Read as a number from the right end: 0x1700000 and 0x300000 have bit 21, 0x170000 and 0x17 have not.
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=1700000", kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=300000", kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=170000", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=017", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=017;DLNA.ORG_PN=MP3", kByte},
    {"contentFeatures.dlna.org: DLNA.ORG_FLAGS=300000;DLNA.ORG_OP=01", kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_FLAGS=0x01700000;DLNA.ORG_OP=01", kByte},
    // A star means all but a time seek, wherever it stands.
    {"contentFeatures.dlna.org: *", kByte | kStalling},
    {"contentFeatures.dlna.org:*", kByte | kStalling},
    {"contentFeatures.dlna.org: http-get:*:video/mpeg:*", kByte | kStalling},
    {"contentFeatures.dlna.org: http-get:*:audio/L16;rate=44100;channels=2:DLNA.ORG_PN=LPCM;"
     "DLNA.ORG_OP=10;DLNA.ORG_FLAGS=01500000000000000000000000000000",
     kEvery},
    {"contentFeatures.dlna.org: http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVMED_FULL;DLNA.ORG_OP=00",
     kByte | kStalling},
    // Quotes around all of it are harmless; quotes around a value hide it.
    {"contentFeatures.dlna.org: \"DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;"
     "DLNA.ORG_FLAGS=01700000000000000000000000000000\"",
     kByte | kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=\"01\";DLNA.ORG_FLAGS=01700000", kStalling},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=11;DLNA.ORG_FLAGS=\"01700000\"", kByte | kTime},
    {"contentFeatures.dlna.org: DLNA.ORG_OP= 01", kNothing},
    {"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_OP=10", kByte}, // the first counts
    {"contentFeatures.dlna.org:", kNothing},
};

// Lines beside the content features that look like them in part. What the stream allowed before stays.
const char* const kNeighbours[] = {
    "transferMode.dlna.org: Streaming",
    "realTimeInfo.dlna.org: DLNA.ORG_TLAG=*",
    "getcontentFeatures: DLNA.ORG_OP=00",
    "availableSeekRange.dlna.org: 1 npt=0:00:00.000-0:01:00.000 bytes=500-999",
    "X-AvailableSeekRange: 1 npt=0.0-60.0",
    "TimeSeekRange.dlna.org: npt=5.500-59.999/0.000",
    "Server: Debian DLNADOC/1.50 UPnP/1.0 MiniDLNA/1.3.0",
    "EXT:",
    "Content-Type: video/mp4; DLNA.ORG_OP=10",
};

std::string changed(std::string text, int (*letter)(int))
{
    for (char& one : text) {
        one = static_cast<char>(letter(static_cast<unsigned char>(one)));
    }
    return text;
}

class HttpDlnaCorpus : public ::testing::Test
{
protected:
    HttpDlnaCorpus() { m_desc.fd = 7; }

    std::uint32_t after(std::uint32_t before, const Lines& lines)
    {
        m_desc.capabilities = before;
        for (const std::string& line : lines) {
            mdchHttpParseHeaderLine(m_desc, line);
        }
        return m_desc.capabilities;
    }

    // The line alone decides: neither its end, nor its case, nor what was allowed before.
    template <std::size_t Count>
    void check(const Row (&rows)[Count])
    {
        m_desc.startPos = 42;
        m_desc.writePos = 43;
        for (const Row& row : rows) {
            const std::string line = row.line;
            for (const std::uint32_t before : {kNothing, kAsked, kEvery}) {
                for (const char* end : {"\r\n", "\n", ""}) {
                    EXPECT_EQ(after(before, {line + end}), row.allows) << row.line << " after " << before;
                }
            }
            EXPECT_EQ(after(kAsked, {changed(line, std::tolower) + "\r\n"}), row.allows) << row.line;
            EXPECT_EQ(after(kAsked, {changed(line, std::toupper) + "\r\n"}), row.allows) << row.line;
        }
        EXPECT_EQ(m_desc.startPos, 42);
        EXPECT_EQ(m_desc.writePos, 43);
    }

    md::MdchCurlDescriptor_struct m_desc;
};

} // namespace

TEST_F(HttpDlnaCorpus, Images)
{
    check(kImages);
}

TEST_F(HttpDlnaCorpus, Audio)
{
    check(kAudio);
}

TEST_F(HttpDlnaCorpus, Video)
{
    check(kVideo);
}

TEST_F(HttpDlnaCorpus, Oddities)
{
    check(kOddities);
}

TEST_F(HttpDlnaCorpus, NeighboursChangeNothing)
{
    for (const char* line : kNeighbours) {
        for (std::uint32_t before = kNothing; before <= kEvery; ++before) {
            EXPECT_EQ(after(before, {std::string(line) + "\r\n"}), before) << line;
        }
    }
    EXPECT_EQ(m_desc.startPos, md::MdchCurlDescriptor_struct().startPos);
    EXPECT_EQ(m_desc.writePos, md::MdchCurlDescriptor_struct().writePos);
}

// Gerbera forgets a line end; what is glued to the ranges does not count for itself.
TEST_F(HttpDlnaCorpus, LinesThatAreGluedToTheRanges)
{
    EXPECT_EQ(after(kNothing, {"Accept-Ranges: bytesCONNECTION: close\r\n"}), kByte);
    EXPECT_EQ(after(kStalling, {"Accept-Ranges: bytesCONNECTION: close\r\n"}), kByte | kStalling);
    EXPECT_EQ(after(kStalling, {"Accept-Ranges: bytescontentFeatures.dlna.org: DLNA.ORG_OP=10\r\n"}),
              kByte | kStalling);
}

TEST_F(HttpDlnaCorpus, ServersThatContradictThemselves)
{
    const std::string none = "Accept-Ranges: none\r\n";
    const std::string bytes = "Accept-Ranges: bytes\r\n";
    const std::string range = "Content-Range: bytes 0-999/1000\r\n";
    const std::string features = "contentFeatures.dlna.org: DLNA.ORG_PN=MP3;";
    const std::string op00 = features + "DLNA.ORG_OP=00;DLNA.ORG_CI=0\r\n";
    const std::string op01 = features + "DLNA.ORG_OP=01;DLNA.ORG_CI=0\r\n";
    const std::string op10 = features + "DLNA.ORG_OP=10;DLNA.ORG_CI=1\r\n";
    const std::string stalling01 = features + "DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000\r\n";
    const std::string stalling11 = features + "DLNA.ORG_OP=11;DLNA.ORG_FLAGS=01700000\r\n";
    const std::string star = "contentFeatures.dlna.org: *\r\n";
    const struct
    {
        Lines lines;
        std::uint32_t allows;
    } cases[] = {
        // The features start anew ...
        {{none, op01}, kByte},
        {{none, stalling01}, kByte | kStalling},
        {{none, op10}, kTime},
        {{none, star}, kByte | kStalling},
        {{bytes, op00}, kNothing},
        {{bytes, op10}, kTime},
        {{range, op00}, kNothing},
        {{stalling11, op00}, kNothing},
        {{op00, stalling11}, kEvery},
        // ... and what follows them changes the byte seek alone.
        {{op01, none}, kNothing},
        {{stalling01, none}, kStalling},
        {{stalling11, none}, kTime | kStalling},
        {{op10, none}, kTime},
        {{star, none}, kStalling},
        {{op00, bytes}, kByte},
        {{op10, bytes}, kByte | kTime},
        {{op01, none, range}, kByte},
        {{op01, range, none}, kNothing},
        {{none, op01, none}, kNothing},
        {{none, op01, bytes}, kByte},
        // Without features, the start in a delivery mode stays but for the byte seek.
        {{none}, kStalling},
        {{range, none}, kStalling},
        {{none, range}, kByte | kStalling},
        {{bytes, none}, kStalling},
        {{none, bytes}, kByte | kStalling},
    };
    for (const auto& one : cases) {
        std::string text;
        for (const std::string& line : one.lines) {
            text += line;
        }
        EXPECT_EQ(after(kAsked, one.lines), one.allows) << text;
    }
}
