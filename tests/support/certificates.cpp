#include "support/certificates.h"

#include "support/issuer.h"

#include <initializer_list>

namespace support {

namespace {

const std::vector<std::string> localNames{"IP:127.0.0.1", "DNS:localhost"};

CertificateRequest authorityRequest(std::string commonName)
{
    CertificateRequest request;
    request.commonName = std::move(commonName);
    request.authority = true;
    return request;
}

CertificateRequest serverRequest(std::string commonName, std::vector<std::string> names = localNames)
{
    CertificateRequest request;
    request.commonName = std::move(commonName);
    request.alternativeNames = std::move(names);
    request.extendedUsage = "serverAuth";
    return request;
}

CertificateRequest clientRequest(std::string commonName)
{
    CertificateRequest request;
    request.commonName = std::move(commonName);
    request.extendedUsage = "clientAuth";
    return request;
}

Authority makeAuthority(const TempDir& files, const std::string& name, const std::string& commonName,
                        const Authority& issuer = Authority())
{
    Authority authority;
    authority.key = makeEcKey();
    authority.certificate =
        makeCertificate(authorityRequest(commonName), authority.key, issuer.certificate, issuer.key);
    authority.pem = files.write(name + ".pem", toPem(authority.certificate));
    return authority;
}

Identity makeIdentity(const TempDir& files, const std::string& name, const CertificateRequest& request,
                      PrivateKey key, const Authority& issuer = Authority(),
                      std::vector<Certificate> chain = {})
{
    Identity identity;
    identity.key = std::move(key);
    identity.certificate = makeCertificate(request, identity.key, issuer.certificate, issuer.key);
    identity.chain = std::move(chain);
    std::string pem = toPem(identity.certificate);
    for (const Certificate& link : identity.chain) {
        pem += toPem(link);
    }
    identity.pem = files.write(name + ".pem", pem);
    identity.keyPem = files.write(name + ".key", toPem(identity.key));
    return identity;
}

} // namespace

Certificates::Certificates() : files_("certificates")
{
    ca = makeAuthority(files_, "ca", "Test CA");
    intermediate = makeAuthority(files_, "intermediate", "Test Intermediate CA", ca);
    unrelatedCa = makeAuthority(files_, "unrelated-ca", "Unrelated CA");

    leaf = makeIdentity(files_, "leaf", serverRequest("localhost"), makeEcKey(), ca);
    intermediateLeaf = makeIdentity(files_, "intermediate-leaf", serverRequest("localhost"), makeEcKey(),
                                    intermediate, {intermediate.certificate});
    lonelyLeaf = intermediateLeaf;
    lonelyLeaf.chain.clear();
    lonelyLeaf.pem = files_.write("lonely-leaf.pem", toPem(lonelyLeaf.certificate));
    selfSigned = makeIdentity(files_, "self-signed", serverRequest("localhost"), makeEcKey());
    CertificateRequest expired = serverRequest("localhost");
    expired.validFromDays = -730;
    expired.validToDays = -365;
    expiredLeaf = makeIdentity(files_, "expired-leaf", expired, makeEcKey(), ca);
    const std::string otherHost = "another.example.test";
    wrongHostLeaf = makeIdentity(files_, "wrong-host-leaf", serverRequest(otherHost, {"DNS:" + otherHost}),
                                 makeEcKey(), ca);

    client = makeIdentity(files_, "client", clientRequest("test client"), makeEcKey(), ca);
    clientFiles.password = "open sesame";
    const std::string certificate = toPem(client.certificate);
    clientFiles.pem = files_.write("client-with-key.pem", certificate + toPem(client.key));
    clientFiles.encryptedPem =
        files_.write("client-with-encrypted-key.pem", certificate + toPem(client.key, clientFiles.password));
    clientFiles.p12 =
        files_.write("client.p12", toPkcs12(client.certificate, client.key, clientFiles.password));
    clientFiles.plainP12 =
        files_.write("client-no-password.p12", toPkcs12(client.certificate, client.key, ""));
    unrelatedClient =
        makeIdentity(files_, "unrelated-client", clientRequest("unrelated client"), makeEcKey(), unrelatedCa);

    directory = files_.path();
    files_.write("trusted/ca.pem", toPem(ca.certificate));
    caDirectory = files_.file("trusted");
    files_.write("unrelated/ca.pem", toPem(unrelatedCa.certificate));
    unrelatedDirectory = files_.file("unrelated");
}

const Identity& Certificates::rsaLeaf() const
{
    std::call_once(rsaOnce_, [this] {
        rsaLeaf_ = makeIdentity(files_, "rsa-leaf", serverRequest("localhost"), makeRsaKey(2048), ca);
    });
    return rsaLeaf_;
}

const Certificates& certificates()
{
    static const Certificates set;
    return set;
}

} // namespace support
