#include "mdc_hlp_upload.h"

#include "mdc_hlp_upload_impl.h"

#include <cerrno>
#include <new>

namespace md {

namespace {

constexpr int kStateWithoutUpload = 3;

boost::shared_ptr<FtpAccess::Impl> makeImpl()
{
    try {
        return boost::shared_ptr<FtpAccess::Impl>(new FtpAccess::Impl);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

} // namespace

FtpAccess::FtpAccess() : m_impl(makeImpl()) {}

void FtpAccess::setServerUrl(const std::string& serverUrl)
{
    if (m_impl != nullptr) {
        m_impl->serverUrl = serverUrl;
    }
}

void FtpAccess::setServerPath(const std::string& serverPath)
{
    if (m_impl != nullptr) {
        m_impl->serverPath = serverPath;
    }
}

void FtpAccess::setUserName(const std::string& userName)
{
    if (m_impl != nullptr) {
        m_impl->userName = userName;
    }
}

void FtpAccess::setUserPassword(const std::string& userPassword)
{
    if (m_impl != nullptr) {
        m_impl->userPassword = userPassword;
    }
}

void FtpAccess::setSourceFile(const std::string& sourceFile)
{
    if (m_impl != nullptr) {
        m_impl->sourceFile = sourceFile;
    }
}

void FtpAccess::setUploadedFile(const std::string& uploadedFile)
{
    if (m_impl != nullptr) {
        m_impl->uploadedFile = uploadedFile;
    }
}

void FtpAccess::setProtocol(const std::string& protocol)
{
    if (m_impl != nullptr) {
        m_impl->protocol = protocol;
    }
}

void FtpAccess::setProgressCallback(void* userData,
                                    void (*callback)(void* userData, long long total, long long now))
{
    if (m_impl != nullptr) {
        m_impl->userData = userData;
        m_impl->progressCallback = callback;
    }
}

int FtpAccess::upload()
{
    if (m_impl == nullptr) {
        return -EIO;
    }
    try {
        return m_impl->upload();
    } catch (const std::bad_alloc&) {
        return Impl::convertErrorCode(CURLE_OUT_OF_MEMORY);
    }
}

int FtpAccess::getProgress(double& total, double& actual)
{
    return m_impl != nullptr ? m_impl->getProgress(total, actual) : kStateWithoutUpload;
}

void FtpAccess::cancel()
{
    if (m_impl != nullptr) {
        m_impl->cancel();
    }
}

int FtpAccess::getCurlCode()
{
    return m_impl != nullptr ? m_impl->getCurlCode() : CURLE_OK;
}

} // namespace md
