// Trusted certificates of one transfer: adding them one by one and from a folder.
#include "mdc_hlp_http_ssl.h"

#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"
#include "support/certificates.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ui.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::certificates;
using Texts = std::vector<std::string>;

constexpr const char* kAdded = "mdchHttpSsl_setCertificateNoLock(): added certificate\n";
constexpr const char* kAlreadyAdded = "mdchHttpSsl_setCertificateNoLock(): certificate alread added\n";

std::string ignored(const std::string& name)
{
    return "\x1b[1;31mmdchHttpSsl_AddCertificates: ignore '" + name + "'.\x1b[0m\n";
}

std::string stored(const std::string& path)
{
    return "mdchHttpSsl_AddCertificates(): store certs  file='" + path + "'\n";
}

// A transfer without a request, registered under a number that no stream has.
class CertificateList : public testing::Test
{
protected:
    static constexpr int kNumber = 1000007;

    CertificateList()
    {
        desc->fd = kNumber;
        mdchHttpCurl_addDescriptor(desc);
    }
    ~CertificateList() override { md::unregisterDescriptor(*desc); }

    int count() const { return desc->certificates == nullptr ? -1 : sk_X509_num(desc->certificates); }
    X509* at(int index) const { return sk_X509_value(desc->certificates, index); }
    bool holds(int index, const support::Certificate& certificate) const
    {
        return X509_cmp(at(index), certificate.get()) == 0;
    }
    void addFolder() { EXPECT_EQ(md::mdchHttpSsl_AddCertificates(desc, dir.path()), 0); }

    md::MdchDescriptorPtr desc = boost::make_shared<md::MdchCurlDescriptor_struct>();
    support::TempDir dir;
};

// Notices when OpenSSL wants to ask somebody for a pass phrase.
class PassPhraseWatch
{
public:
    PassPhraseWatch() : m_method(UI_create_method("watch"))
    {
        s_asked = false;
        UI_method_set_opener(m_method, [](UI*) {
            s_asked = true;
            return 0;
        });
        UI_set_default_method(m_method);
    }
    ~PassPhraseWatch()
    {
        UI_set_default_method(UI_OpenSSL());
        UI_destroy_method(m_method);
    }
    PassPhraseWatch(const PassPhraseWatch&) = delete;
    PassPhraseWatch& operator=(const PassPhraseWatch&) = delete;

    static bool asked() { return s_asked; }

private:
    static inline bool s_asked = false;
    UI_METHOD* m_method;
};

std::string encryptedCertificatePem(const support::Certificate& certificate)
{
    const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), BIO_free);
    std::string passPhrase = "secret";
    EXPECT_EQ(PEM_ASN1_write_bio(
                  [](const void* object, unsigned char** out) {
                      return i2d_X509(static_cast<const X509*>(object), out);
                  },
                  PEM_STRING_X509, memory.get(), certificate.get(), EVP_aes_128_cbc(),
                  reinterpret_cast<unsigned char*>(passPhrase.data()), static_cast<int>(passPhrase.size()),
                  nullptr, nullptr),
              1);
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

} // namespace

TEST_F(CertificateList, isMissingUntilTheFirstCertificate)
{
    EXPECT_EQ(desc->certificates, nullptr);
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, certificates().ca.certificate.get()), 0);
    EXPECT_EQ(count(), 1);
}

TEST_F(CertificateList, holdsACopyThatTheCallersObjectDoesNotMatterTo)
{
    X509* own = X509_dup(certificates().ca.certificate.get());
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, own), 0);
    EXPECT_NE(at(0), own);
    X509_free(own);
    EXPECT_TRUE(holds(0, certificates().ca.certificate));
}

TEST_F(CertificateList, theSameCertificateIsKeptOnce)
{
    const support::TraceCapture traces;
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, certificates().ca.certificate.get()), 0);
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, certificates().ca.certificate.get()), 0);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(traces.texts(), (Texts{kAdded, kAlreadyAdded}));
    EXPECT_EQ(traces.severityOf(kAdded), 5000U);
    EXPECT_EQ(traces.severityOf(kAlreadyAdded), 5000U);
}

TEST_F(CertificateList, keepsTheOrderOfAdding)
{
    const std::vector<support::Certificate> added{
        certificates().unrelatedCa.certificate, certificates().ca.certificate,
        certificates().selfSigned.certificate, certificates().intermediate.certificate};
    for (const auto& certificate : added) {
        EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, certificate.get()), 0);
    }
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, added[1].get()), 0);
    ASSERT_EQ(count(), 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(holds(i, added[static_cast<std::size_t>(i)])) << i;
    }
}

TEST_F(CertificateList, nullCertificateIsInvalid)
{
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber, nullptr), -EINVAL);
    EXPECT_EQ(mdchHttpSsl_setCertificateNoLock(desc, nullptr), -EINVAL);
    EXPECT_EQ(desc->certificates, nullptr);
}

TEST_F(CertificateList, unknownNumberIsInvalid)
{
    X509* certificate = certificates().ca.certificate.get();
    const support::TraceCapture traces;
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber + 1, certificate), -EINVAL);
    EXPECT_EQ(mdchHttpSsl_setCertificate(-1, certificate), -EINVAL);
    EXPECT_EQ(mdchHttpSsl_setCertificate(kNumber + 1, nullptr), -EINVAL);
    EXPECT_FALSE(traces.hasAnywhere("certificate\n"));
}

TEST_F(CertificateList, emptyRecordIsInvalid)
{
    EXPECT_EQ(mdchHttpSsl_setCertificateNoLock({}, certificates().ca.certificate.get()), -EINVAL);
    EXPECT_EQ(mdchHttpSsl_setCertificateNoLock({}, nullptr), -EINVAL);
}

TEST_F(CertificateList, worksWithoutTheRegistry)
{
    const auto own = boost::make_shared<md::MdchCurlDescriptor_struct>();
    const MdpLock lock = md::lockDescriptor(*own);
    EXPECT_EQ(mdchHttpSsl_setCertificateNoLock(own, certificates().ca.certificate.get()), 0);
    EXPECT_EQ(sk_X509_num(own->certificates), 1);
}

TEST_F(CertificateList, severalThreadsMayAdd)
{
    const std::vector<support::Certificate> all{
        certificates().ca.certificate, certificates().intermediate.certificate,
        certificates().unrelatedCa.certificate, certificates().leaf.certificate};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < all.size(); ++i) {
        threads.emplace_back([&all, i] {
            for (std::size_t round = 0; round < 200; ++round) {
                mdchHttpSsl_setCertificate(kNumber, all[(i + round) % all.size()].get());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count(), 4);
}

TEST_F(CertificateList, cleanupFreesTheListAndAcceptsNull)
{
    mdchHttpSsl_cleanupCerts(nullptr);
    STACK_OF(X509)* list = sk_X509_new_null();
    mdchHttpSsl_cleanupCerts(list);
    list = sk_X509_new_null();
    X509* kept = X509_dup(certificates().ca.certificate.get());
    X509_up_ref(kept);
    sk_X509_push(list, kept);
    sk_X509_push(list, X509_dup(certificates().leaf.certificate.get()));
    mdchHttpSsl_cleanupCerts(list);
    EXPECT_EQ(X509_cmp(kept, certificates().ca.certificate.get()), 0)
        << "more than one reference was dropped";
    X509_free(kept);
}

TEST_F(CertificateList, folderWithAPemFileASubfolderAndATextFile)
{
    dir.write("a.pem", support::toPem(certificates().ca.certificate));
    dir.write("readme.txt", "no certificate here\n");
    dir.makeDir("sub");
    dir.write("sub/b.pem", support::toPem(certificates().unrelatedCa.certificate));
    const support::TraceCapture traces;
    addFolder();
    ASSERT_EQ(count(), 1);
    EXPECT_TRUE(holds(0, certificates().ca.certificate));
    for (const std::string name : {".", "..", "sub"}) {
        EXPECT_EQ(traces.count(ignored(name)), 1U) << name;
        const bool isFailure = name == "sub"; // the others are in every folder
        EXPECT_EQ(traces.severityOf(ignored(name)), isFailure ? 3000U : 5000U) << name;
    }
    EXPECT_EQ(traces.count(stored(dir.file("a.pem"))), 1U);
    EXPECT_EQ(traces.severityOf(stored(dir.file("a.pem"))), 5000U);
    EXPECT_EQ(traces.count(kAdded), 1U);
    EXPECT_EQ(traces.lines().size(), 5U) << "the text file is passed over without a word";
}

TEST_F(CertificateList, folderWithoutACertificateLeavesNoList)
{
    dir.write("readme.txt", "no certificate here\n");
    dir.write("empty", "");
    dir.write("key.pem", support::toPem(certificates().leaf.key));
    dir.write("cut.pem", support::toPem(certificates().ca.certificate).substr(0, 100));
    dir.write("garbage.pem", "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n");
    addFolder();
    EXPECT_EQ(desc->certificates, nullptr);
    EXPECT_EQ(ERR_peek_error(), 0UL) << "an error is left to the next TLS call";
}

TEST_F(CertificateList, folderThatCannotBeOpenedIsReported)
{
    const support::TraceCapture traces;
    const std::string expected =
        "\x1b[1;31mmdchHttpSsl_AddCertificates: can't open directory '" + dir.file("missing") + "'.\x1b[0m\n";
    EXPECT_EQ(md::mdchHttpSsl_AddCertificates(desc, dir.file("missing")), 0);
    EXPECT_EQ(traces.texts(), Texts{expected});
    EXPECT_EQ(traces.severityOf(expected), 3000U);
    EXPECT_EQ(md::mdchHttpSsl_AddCertificates(desc, ""), 0);
    EXPECT_EQ(md::mdchHttpSsl_AddCertificates(desc, dir.write("file", "")), 0);
    EXPECT_EQ(traces.lines().size(), 3U);
    EXPECT_EQ(desc->certificates, nullptr);
}

TEST_F(CertificateList, folderOfAnEmptyRecordIsNotLookedAt)
{
    dir.write("a.pem", support::toPem(certificates().ca.certificate));
    const support::TraceCapture traces;
    EXPECT_EQ(md::mdchHttpSsl_AddCertificates({}, dir.path()), 0);
    EXPECT_EQ(md::mdchHttpSsl_AddCertificates({}, dir.file("missing")), 0);
    EXPECT_TRUE(traces.lines().empty());
}

TEST_F(CertificateList, onlyTheFirstCertificateOfAFileIsUsed)
{
    dir.write("chain.pem", "a comment\n" + support::toPem(certificates().leaf.key) +
                               support::toPem(certificates().intermediate.certificate) +
                               support::toPem(certificates().ca.certificate));
    addFolder();
    ASSERT_EQ(count(), 1);
    EXPECT_TRUE(holds(0, certificates().intermediate.certificate));
}

TEST_F(CertificateList, filesComeInTheOrderOfTheFolder)
{
    const std::map<std::string, support::Certificate> files{{"a", certificates().ca.certificate},
                                                            {"b", certificates().intermediate.certificate},
                                                            {"c", certificates().unrelatedCa.certificate},
                                                            {"d", certificates().leaf.certificate},
                                                            {"e", certificates().selfSigned.certificate}};
    for (const auto& file : files) {
        dir.write(file.first, support::toPem(file.second));
    }
    std::vector<std::string> order;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(dir.path().c_str()), closedir);
    while (const dirent* entry = readdir(folder.get())) {
        if (files.count(entry->d_name) != 0) {
            order.emplace_back(entry->d_name);
        }
    }
    addFolder();
    ASSERT_EQ(count(), 5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(holds(i, files.at(order.at(static_cast<std::size_t>(i))))) << i;
    }
}

TEST_F(CertificateList, folderWithACertificateTwiceKeepsItOnce)
{
    dir.write("a.pem", support::toPem(certificates().ca.certificate));
    dir.write("b.pem", support::toPem(certificates().ca.certificate));
    const support::TraceCapture traces;
    addFolder();
    EXPECT_EQ(count(), 1);
    EXPECT_TRUE(traces.has(stored(dir.file("a.pem"))));
    EXPECT_TRUE(traces.has(stored(dir.file("b.pem"))));
    EXPECT_EQ(traces.count(kAdded), 1U);
    EXPECT_EQ(traces.count(kAlreadyAdded), 1U);
}

TEST_F(CertificateList, folderAddsToWhatIsThere)
{
    ASSERT_EQ(mdchHttpSsl_setCertificate(kNumber, certificates().unrelatedCa.certificate.get()), 0);
    dir.write("a.pem", support::toPem(certificates().ca.certificate));
    addFolder();
    ASSERT_EQ(count(), 2);
    EXPECT_TRUE(holds(0, certificates().unrelatedCa.certificate));
    EXPECT_TRUE(holds(1, certificates().ca.certificate));
}

TEST_F(CertificateList, linksToFilesAreFollowed)
{
    const support::TempDir elsewhere;
    const std::string target = elsewhere.write("ca.pem", support::toPem(certificates().ca.certificate));
    ASSERT_EQ(symlink(target.c_str(), dir.file("link").c_str()), 0);
    const support::TraceCapture traces;
    addFolder();
    EXPECT_EQ(count(), 1);
    EXPECT_TRUE(traces.has(stored(dir.file("link"))));
}

TEST_F(CertificateList, linksThatLeadToNoFileArePassedOverInSilence)
{
    const support::TempDir elsewhere;
    ASSERT_EQ(mkfifo(elsewhere.file("pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink(elsewhere.file("pipe").c_str(), dir.file("to-pipe").c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.file("missing").c_str(), dir.file("dangling").c_str()), 0);
    ASSERT_EQ(symlink("loop", dir.file("loop").c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.path().c_str(), dir.file("to-folder").c_str()), 0);
    dir.write("a.pem", support::toPem(certificates().ca.certificate));
    const support::TraceCapture traces;
    addFolder(); // and does not wait for somebody to write into the pipe
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(traces.lines().size(), 4U) << "two dots, one file stored, one certificate added";
}

TEST_F(CertificateList, pipesInTheFolderAreIgnored)
{
    ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
    const support::TraceCapture traces;
    addFolder();
    EXPECT_EQ(traces.count(ignored("pipe")), 1U);
    EXPECT_EQ(desc->certificates, nullptr);
}

TEST_F(CertificateList, encryptedFilesAskNobodyForAPassPhrase)
{
    dir.write("key.pem", support::toPem(certificates().leaf.key, "secret"));
    dir.write("certificate.pem", encryptedCertificatePem(certificates().ca.certificate));
    const PassPhraseWatch watch;
    addFolder();
    EXPECT_FALSE(PassPhraseWatch::asked());
    EXPECT_EQ(desc->certificates, nullptr);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(CertificateList, aCertificateBehindAnEncryptedKeyIsFound)
{
    dir.write("both.pem", support::toPem(certificates().leaf.key, "secret") +
                              support::toPem(certificates().leaf.certificate));
    const PassPhraseWatch watch;
    addFolder();
    EXPECT_FALSE(PassPhraseWatch::asked());
    ASSERT_EQ(count(), 1);
    EXPECT_TRUE(holds(0, certificates().leaf.certificate));
}
