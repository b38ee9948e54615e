// Verification of a server's chain against the transfer's own list.
#include "mdc_hlp_http_ssl.h"

#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"
#include "support/certificates.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <string>
#include <vector>

namespace {

using support::certificates;
using Texts = std::vector<std::string>;

constexpr int kNumber = 1000008;

const std::string kVerify = "mdchHttpSsl_verifyCertificateCallback(): verify certificate for fd 1000008\n";

void* pointerTo(int number)
{
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(number));
}

std::string failed(int error)
{
    return std::string("mdchHttpSsl_verifyCertificateCallback(): verify cert failed: ") +
           X509_verify_cert_error_string(error) + " (" + std::to_string(error) + ")\n";
}

// A chain as it came from a server, about to be verified.
class Chain
{
public:
    explicit Chain(const support::Certificate& leaf, const std::vector<support::Certificate>& others = {})
        : m_others(sk_X509_new_null()), m_store(X509_STORE_new()), m_context(X509_STORE_CTX_new())
    {
        for (const auto& certificate : others) {
            sk_X509_push(m_others, certificate.get());
        }
        EXPECT_EQ(X509_STORE_CTX_init(m_context, m_store, leaf.get(), m_others), 1);
    }
    ~Chain()
    {
        X509_STORE_CTX_free(m_context);
        X509_STORE_free(m_store);
        sk_X509_free(m_others);
    }
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    X509_STORE_CTX* context() { return m_context; }
    int verify(int number = kNumber)
    {
        return mdchHttpSsl_verifyCertificateCallback(m_context, pointerTo(number));
    }
    int error() const { return X509_STORE_CTX_get_error(m_context); }

private:
    STACK_OF(X509) * m_others;
    X509_STORE* m_store;
    X509_STORE_CTX* m_context;
};

class Verification : public testing::Test
{
protected:
    Verification()
    {
        desc->fd = kNumber;
        mdchHttpCurl_addDescriptor(desc);
    }
    ~Verification() override { md::unregisterDescriptor(*desc); }

    static void trust(const support::Certificate& certificate)
    {
        ASSERT_EQ(mdchHttpSsl_setCertificate(kNumber, certificate.get()), 0);
    }

    md::MdchDescriptorPtr desc = boost::make_shared<md::MdchCurlDescriptor_struct>();
};

void expectRejected(Chain& chain, int error)
{
    const support::TraceCapture traces;
    EXPECT_NE(chain.verify(), 1);
    EXPECT_EQ(chain.error(), error) << X509_verify_cert_error_string(chain.error());
    EXPECT_EQ(traces.texts(), (Texts{kVerify, failed(error)}));
    EXPECT_EQ(traces.severityOf(kVerify), 5000U);
    EXPECT_EQ(traces.severityOf(failed(error)), 3000U);
}

// Both ends of a TLS connection within the process.
class Handshake
{
public:
    explicit Handshake(const support::Identity& identity)
        : m_client(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
          m_server(SSL_CTX_new(TLS_server_method()), SSL_CTX_free)
    {
        EXPECT_EQ(SSL_CTX_use_certificate(m_server.get(), identity.certificate.get()), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey(m_server.get(), identity.key.get()), 1);
    }

    SSL_CTX* clientContext() { return m_client.get(); }

    // Whether the client accepted the server's certificate.
    bool run()
    {
        const std::unique_ptr<SSL, void (*)(SSL*)> client(SSL_new(m_client.get()), SSL_free);
        const std::unique_ptr<SSL, void (*)(SSL*)> server(SSL_new(m_server.get()), SSL_free);
        BIO* clientEnd = nullptr;
        BIO* serverEnd = nullptr;
        EXPECT_EQ(BIO_new_bio_pair(&clientEnd, 0, &serverEnd, 0), 1);
        SSL_set_bio(client.get(), clientEnd, clientEnd);
        SSL_set_bio(server.get(), serverEnd, serverEnd);
        SSL_set_connect_state(client.get());
        SSL_set_accept_state(server.get());
        for (int step = 0; step < 20; ++step) {
            const int result = SSL_do_handshake(client.get());
            if (result == 1) {
                return true;
            }
            if (SSL_get_error(client.get(), result) != SSL_ERROR_WANT_READ) {
                return false;
            }
            SSL_do_handshake(server.get());
        }
        ADD_FAILURE() << "the handshake does not end";
        return false;
    }

private:
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_client;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_server;
};

} // namespace

TEST_F(Verification, acceptsALeafWhoseAuthorityIsInTheList)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().leaf.certificate);
    const support::TraceCapture traces;
    EXPECT_EQ(chain.verify(), 1);
    EXPECT_EQ(chain.error(), X509_V_OK);
    EXPECT_EQ(traces.texts(), Texts{kVerify});
}

TEST_F(Verification, acceptsAChainThroughAnIntermediateThatTheServerSends)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().intermediateLeaf.certificate, certificates().intermediateLeaf.chain);
    EXPECT_EQ(chain.verify(), 1);
    EXPECT_EQ(chain.error(), X509_V_OK);
}

TEST_F(Verification, findsTheRightCertificateAmongOthers)
{
    trust(certificates().unrelatedCa.certificate);
    trust(certificates().selfSigned.certificate);
    trust(certificates().ca.certificate);
    Chain chain(certificates().leaf.certificate);
    EXPECT_EQ(chain.verify(), 1);
}

TEST_F(Verification, acceptsASelfSignedCertificateThatIsInTheList)
{
    trust(certificates().selfSigned.certificate);
    Chain chain(certificates().selfSigned.certificate);
    EXPECT_EQ(chain.verify(), 1);
}

TEST_F(Verification, rejectsALeafOfAnAuthorityThatIsNotInTheList)
{
    trust(certificates().unrelatedCa.certificate);
    Chain chain(certificates().leaf.certificate);
    expectRejected(chain, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(Verification, rejectsAnExpiredLeaf)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().expiredLeaf.certificate);
    expectRejected(chain, X509_V_ERR_CERT_HAS_EXPIRED);
}

TEST_F(Verification, rejectsASelfSignedCertificateThatIsNotInTheList)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().selfSigned.certificate);
    expectRejected(chain, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST_F(Verification, rejectsAChainWhoseIntermediateIsMissing)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().lonelyLeaf.certificate);
    expectRejected(chain, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(Verification, rejectsEveryChainWithoutAList)
{
    Chain chain(certificates().leaf.certificate);
    X509_STORE_add_cert(X509_STORE_CTX_get0_store(chain.context()), certificates().ca.certificate.get());
    expectRejected(chain, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(Verification, usesTheListInPlaceOfTheContextsOwnStore)
{
    trust(certificates().unrelatedCa.certificate);
    Chain chain(certificates().leaf.certificate);
    X509_STORE_add_cert(X509_STORE_CTX_get0_store(chain.context()), certificates().ca.certificate.get());
    EXPECT_NE(chain.verify(), 1);
}

TEST_F(Verification, anAcceptedChainLeavesNoErrorInTheContext)
{
    trust(certificates().ca.certificate);
    Chain chain(certificates().expiredLeaf.certificate);
    // Accepted in spite of its date: the error stays behind in the context, if nobody clears it.
    X509_STORE_CTX_set_verify_cb(chain.context(), [](int, X509_STORE_CTX*) { return 1; });
    EXPECT_EQ(chain.verify(), 1);
    EXPECT_EQ(chain.error(), X509_V_OK);
}

TEST_F(Verification, withoutARecordNoChainIsAccepted)
{
    Chain chain(certificates().leaf.certificate);
    const support::TraceCapture traces;
    EXPECT_EQ(chain.verify(kNumber + 1), 0);
    EXPECT_EQ(chain.verify(-1), 0);
    EXPECT_FALSE(traces.hasAnywhere("verify"));
}

TEST_F(Verification, withoutAContextNothingIsAccepted)
{
    EXPECT_EQ(mdchHttpSsl_verifyCertificateCallback(nullptr, pointerTo(kNumber)), 0);
}

TEST_F(Verification, contextCallbackRejectsANullContext)
{
    const support::TraceCapture traces;
    EXPECT_EQ(mdchHttpCurl_sslctxCallback(nullptr, nullptr, pointerTo(kNumber)), 60);
    EXPECT_TRUE(traces.lines().empty());
}

TEST_F(Verification, contextCallbackDemandsThePeersCertificate)
{
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(SSL_CTX_new(TLS_client_method()),
                                                               SSL_CTX_free);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, [](int, X509_STORE_CTX*) { return 1; });
    const support::TraceCapture traces;
    EXPECT_EQ(mdchHttpCurl_sslctxCallback(nullptr, context.get(), pointerTo(kNumber)), CURLE_OK);
    EXPECT_EQ(SSL_CTX_get_verify_mode(context.get()), SSL_VERIFY_PEER);
    EXPECT_EQ(SSL_CTX_get_verify_callback(context.get()), nullptr);
    const std::string expected = "mdchHttpCurl_sslctxCallback(): got sslctx callback for fd 1000008\n";
    EXPECT_EQ(traces.texts(), Texts{expected});
    EXPECT_EQ(traces.severityOf(expected), 5000U);
}

TEST_F(Verification, contextCallbackMakesHandshakesUseTheList)
{
    const support::TraceCapture traces;
    {
        Handshake handshake(certificates().leaf);
        ASSERT_EQ(mdchHttpCurl_sslctxCallback(nullptr, handshake.clientContext(), pointerTo(kNumber)),
                  CURLE_OK);
        EXPECT_FALSE(handshake.run());
        EXPECT_EQ(traces.count(kVerify), 1U);
    }
    trust(certificates().ca.certificate);
    {
        Handshake handshake(certificates().leaf);
        ASSERT_EQ(mdchHttpCurl_sslctxCallback(nullptr, handshake.clientContext(), pointerTo(kNumber)),
                  CURLE_OK);
        EXPECT_TRUE(handshake.run());
        EXPECT_EQ(traces.count(kVerify), 2U);
    }
    md::unregisterDescriptor(*desc);
    {
        Handshake handshake(certificates().leaf);
        ASSERT_EQ(mdchHttpCurl_sslctxCallback(nullptr, handshake.clientContext(), pointerTo(kNumber)),
                  CURLE_OK);
        EXPECT_FALSE(handshake.run()) << "the transfer is gone";
    }
}
