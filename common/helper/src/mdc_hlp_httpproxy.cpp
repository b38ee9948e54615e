#include "mdc_hlp_httpproxy.h"

#include "mdc_hlp_trace.h"
#include "mdp_thread.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstring>

namespace md {

namespace {

struct CurrentProxy
{
    MdpMutex mutex;
    boost::shared_ptr<HttpProxyInfo> setting; // guarded by mutex; empty until the first set
};

// Never destroyed: the worker may configure a transfer while static objects go.
CurrentProxy& currentProxy()
{
    static auto* instance = new CurrentProxy;
    return *instance;
}

} // namespace

bool HttpProxyInfo::isComplete() const
{
    const auto has = [this](unsigned int fields) { return (availableFields & fields) == fields; };
    if (!has(kFieldEnabled)) {
        return false;
    }
    if (enabled == 0) {
        return true;
    }
    if (!has(kFieldPort | kFieldHost | kFieldAuthenticate)) {
        return false;
    }
    return authenticate == 0 || has(kFieldUser | kFieldPassword);
}

bool HttpProxyInfo::isEqual(const HttpProxyInfo& other) const
{
    if ((enabled != 0) != (other.enabled != 0)) {
        return false;
    }
    if (enabled == 0) {
        return true;
    }
    if (port != other.port || std::strcmp(host.c_str(), other.host.c_str()) != 0 ||
        (authenticate != 0) != (other.authenticate != 0)) {
        return false;
    }
    return authenticate == 0 || (user == other.user && password == other.password);
}

void HttpProxyInfo::setFieldAvailable(unsigned int mask, bool available)
{
    availableFields = available ? availableFields | mask : availableFields & ~mask;
}

bool setHttpProxyInfo(const httpProxyInfo_struct& info, bool enabled, bool authenticate)
{
    MDCH_TRACE(kTraceNotice, "%s:%d:%s(): got http proxy configuration\n", MDCH_HERE);
    auto setting = boost::make_shared<HttpProxyInfo>();
    setting->enabled = enabled ? 1 : 0;
    setting->authenticate = authenticate ? 1 : 0;
    setting->host = info.host;
    setting->port = info.port;
    setting->user = info.user;
    setting->password = info.password;
    setting->setFieldAvailable(HttpProxyInfo::kFieldAll, true);
    CurrentProxy& current = currentProxy();
    const MdpLock lock(current.mutex);
    current.setting.swap(setting);
    return true;
}

bool getHttpProxyInfo(httpProxyInfo_struct& info)
{
    CurrentProxy& current = currentProxy();
    const MdpLock lock(current.mutex);
    const boost::shared_ptr<HttpProxyInfo>& setting = current.setting;
    if (setting == nullptr || !setting->isComplete() || setting->enabled == 0) {
        return false;
    }
    const bool authenticate = setting->authenticate != 0;
    info.port = setting->port;
    info.host = setting->host;
    info.user = authenticate ? setting->user : std::string();
    info.password = authenticate ? setting->password : std::string();
    return true;
}

} // namespace md
