// What the shared library shows to the world: its interface, and nothing of the engine.

#include <algorithm>
#include <array>
#include <cstdio>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

class SharedLibrary : public testing::Test
{
protected:
    // Not closed: it stays loaded anyway.
    void* m_library = dlopen(MDC_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);

    bool shows(const std::string& symbol) const { return dlsym(m_library, symbol.c_str()) != nullptr; }
};

// A std::string parameter as the compiler writes it into a symbol.
constexpr const char* kText = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

// The symbol of a function in namespace md.
std::string mangled(const std::string& name, const std::string& parameters)
{
    return "_ZN2md" + std::to_string(name.size()) + name + "E" + parameters;
}

TEST_F(SharedLibrary, showsTheInterface)
{
    ASSERT_NE(m_library, nullptr) << dlerror();
    for (const char* symbol :
         {"userAgent",          "mdch_UrlInit",       "mdch_getUserAgent", "mdch_UrlOpen",
          "mdch_UrlOpenExt",    "mdch_UrlClose",      "mdch_UrlRead",      "mdch_UrlWrite",
          "mdch_UrlTell",       "mdch_UrlSeek",       "mdch_UrlSeekTime",  "mdch_UrlGetc",
          "mdch_UrlEof",        "mdch_UrlError",      "mdch_UrlClearerr",  "mdch_UrlSize",
          "mdch_UrlIsSeekable", "mdch_UrlCapability", "mdch_UrlPause",     "mdch_UrlResume"}) {
        EXPECT_TRUE(shows(symbol)) << symbol;
    }
    for (const char* symbol :
         {"mdc_httphelper_urlEncode", "mdc_httphelper_urlDecode", "mdc_httphelper_urlPatch"}) {
        EXPECT_TRUE(shows(symbol)) << symbol;
    }
    EXPECT_TRUE(shows("_ZN11MdchUrlBase14createInstanceEPKc"));
    EXPECT_TRUE(shows("_ZTI11MdchUrlBase")) << "streams are cast to their back-end";
    EXPECT_TRUE(shows("_ZTIN2md10HttpAccessE"));
    EXPECT_TRUE(shows("_ZN2md10HttpAccess8shutdownEv"));
    EXPECT_TRUE(shows("_ZTI11MdchUrlFile"));
    EXPECT_TRUE(shows("_ZTI12MdchUrlNvol2"));
    EXPECT_TRUE(shows("_ZN12MdchUrlNvol2C1Ev"));
    const std::string text = std::string("RK") + kText;
    EXPECT_TRUE(shows(mangled("parseNvol2Url", text + "RS5_S8_S8_")));
    EXPECT_TRUE(shows(mangled("nvol2UrlToNative", text + "RS5_")));
    EXPECT_TRUE(shows(mangled("nvol2UrlToMediaIdAndName", text + "RiRS5_")));
    EXPECT_TRUE(shows(mangled("urlEncode", kText)));
    EXPECT_TRUE(shows(mangled("urlDecode", kText)));
    EXPECT_TRUE(shows("_ZN2md8urlPatchB5cxx11EPKc"));
    EXPECT_TRUE(shows(mangled("urlPatch", std::string("RK") + kText)));
    EXPECT_TRUE(shows(mangled("validUtf8Char", "PKhi")));
    EXPECT_TRUE(shows("_ZN2md9IcyReaderC1EN5boost10shared_ptrI11MdchUrlBaseEEi"));
    EXPECT_TRUE(shows("_ZN2md9IcyReaderD1Ev"));
    EXPECT_TRUE(shows("_ZN2md9IcyReader4readEPhj"));
    EXPECT_TRUE(shows("_ZNK2md9IcyReader4tellEv"));
    EXPECT_TRUE(shows("_ZNK2md9IcyReader5titleB5cxx11Ev"));
    EXPECT_TRUE(shows("_ZNK2md9IcyReader3urlB5cxx11Ev"));
    EXPECT_TRUE(shows("_ZN2md9IcyReader11takeChangesEv"));
    EXPECT_TRUE(shows("mdchHttpSsl_setCertificate"));
    EXPECT_TRUE(shows("mdchHttpSsl_cleanupCerts"));
    EXPECT_TRUE(shows("mdchHttpSsl_verifyCertificateCallback"));
}

TEST_F(SharedLibrary, showsPlaylistsAndRedirects)
{
    ASSERT_NE(m_library, nullptr);
    const std::string text = std::string("RK") + kText; // the first; later ones are written in short
    EXPECT_TRUE(shows("_Z20createM3uItemLocator" + text + "S6_"));
    EXPECT_TRUE(
        shows("_Z22createM3uEntryFromData" + text + "N2md12Conversion_tES6_S6_RNS7_13PlaylistEntryE"));
    EXPECT_TRUE(shows("_Z24parseM3uBufferToPlaylist" + text +
                      "RKSt6vectorIhSaIhEEN2md12Conversion_tERNS_4listINSC_13PlaylistEntryESaISF_EEERS4_"));
    EXPECT_TRUE(shows(
        mangled("scanPlaylist", text + "RNS0_4listINS_13PlaylistEntryESaIS9_EEERS5_NS_12Conversion_tE")));
    EXPECT_TRUE(shows(mangled("streamNeedRedirect", text + "RSt5dequeIS5_SaIS5_EE")));
    EXPECT_TRUE(shows(mangled("parseM3U", text + "RS5_")));
    EXPECT_TRUE(shows(mangled("parseASX", text + "RS5_Rb")));
    EXPECT_TRUE(shows(mangled("parseSIMPLE", text + "RS5_")));
}

TEST_F(SharedLibrary, showsTheUpload)
{
    ASSERT_NE(m_library, nullptr);
    const std::string text = std::string("RK") + kText;
    for (const std::string& member :
         std::vector<std::string>{"C1Ev", "C2Ev", "6uploadEv", "6cancelEv", "11getProgressERdS1_",
                                  "11getCurlCodeEv", "19setProgressCallbackEPvPFvS1_xxE"}) {
        EXPECT_TRUE(shows("_ZN2md9FtpAccess" + member)) << member;
    }
    for (const std::string& setter :
         std::vector<std::string>{"12setServerUrl", "13setServerPath", "11setUserName", "15setUserPassword",
                                  "13setSourceFile", "15setUploadedFile", "11setProtocol"}) {
        EXPECT_TRUE(shows("_ZN2md9FtpAccess" + setter + "E" + text)) << setter;
    }
    EXPECT_FALSE(shows("_ZN2md9FtpAccess4Impl6uploadEv"));
    EXPECT_FALSE(shows("_ZN2md9FtpAccess4Impl16convertErrorCodeE8CURLcode"));
}

TEST_F(SharedLibrary, showsThePlatformsSetUp)
{
    ASSERT_NE(m_library, nullptr);
    EXPECT_TRUE(shows("mdpDebugSetSeverity"));
    EXPECT_TRUE(shows("mdpDebugSetSink"));
}

// The names that the library defines, as the linker's tool lists them.
std::set<std::string> definedNames()
{
    std::set<std::string> names;
    const auto close = [](std::FILE* pipe) { pclose(pipe); };
    const std::unique_ptr<std::FILE, decltype(close)> pipe(
        popen("nm -D --defined-only -j '" MDC_LIBRARY_FILE "'", "r"), close);
    std::array<char, 10000> line{};
    while (pipe != nullptr && std::fgets(line.data(), line.size(), pipe.get()) != nullptr) {
        const std::string name = line.data();
        names.insert(name.substr(0, name.find_first_of("@\n"))); // without the version
    }
    return names;
}

TEST_F(SharedLibrary, ofThePlatformItShowsTheSetUpAndTheMediaService)
{
    const std::set<std::string> expected{
        "mdpDebugCheck",   "mdpDebugHexDump",   "mdpDebugPrintf",   "mdpDebugSetSeverity",
        "mdpDebugSetSink", "nvol2MediaGet",     "nvol2MediaIDList", "nvol2MediaIDGetByUUID",
        "nvol2VolumeAdd",  "nvol2VolumeRemove", "nvol2_clearerr",   "nvol2_fclose",
        "nvol2_feof",      "nvol2_ferror",      "nvol2_fgetc",      "nvol2_fopen",
        "nvol2_fread",     "nvol2_fseek",       "nvol2_ftell",      "nvol2_fwrite"};
    const std::set<std::string> all = definedNames();
    ASSERT_GT(all.count("mdch_UrlOpen"), 0U) << "no list of names";
    std::set<std::string> shown;
    std::copy_if(all.begin(), all.end(), std::inserter(shown, shown.end()), [](const std::string& name) {
        // Of names in C++ the mangled parts: "9Nvol2Volume", "12nvol2UuidKey", "9MdpThread" ...
        const bool isPlatforms =
            name.find("nvol2") != std::string::npos || name.find("Nvol2") != std::string::npos ||
            name.find("mdp") != std::string::npos || name.find("Mdp") != std::string::npos;
        const bool isHelpers =
            name.rfind("_ZN2md", 0) == 0 || name.find("12MdchUrlNvol2") != std::string::npos;
        return isPlatforms && !isHelpers;
    });
    EXPECT_EQ(shown, expected);
    EXPECT_TRUE(std::none_of(all.begin(), all.end(), [](const std::string& name) {
        return name.find("SharedHandle") != std::string::npos;
    })) << "what streams hold is their own";
}

TEST_F(SharedLibrary, hidesTheEngine)
{
    ASSERT_NE(m_library, nullptr);
    EXPECT_FALSE(shows("mdchHttpCurl_writeCallback"));
    EXPECT_FALSE(shows("mdchHttpCurl_headerCallback"));
    EXPECT_FALSE(shows("mdchHttpCurl_sslctxCallback"));
    EXPECT_FALSE(shows("_Z30mdchHttpCurl_wakeupWorkerThreadv"));
    EXPECT_FALSE(shows("_Z23mdchHttpCurl_getContexti"));
    EXPECT_FALSE(shows("_ZN13MdpRingBuffer7releaseEv"));
    EXPECT_FALSE(shows("_ZN2md13IcyReaderImpl4readEPhj"));
    EXPECT_FALSE(shows("_ZN2md13parseIcyBlockESt17basic_string_viewIcSt11char_traitsIcEE"));
}

} // namespace
