/*
 * The process-wide HTTP proxy setting.
 *
 * The platform's settings service sets it, every new transfer reads it. It is replaced as a whole, never
 * changed in place; one mutex inside mdc_hlp_httpproxy.cpp guards it. No environment variable has any effect
 * on the library's transfers.
 */
#ifndef MDC_HLP_HTTPPROXY_H
#define MDC_HLP_HTTPPROXY_H

#include "mdc_hlp_export.h"

#include <cstdint>
#include <string>

namespace md {

/* What callers exchange. */
struct httpProxyInfo_struct
{
    std::int32_t port = 0; // TCP, 1 to 65535
    std::string host;      // name or address, without scheme
    std::string user;      // empty: the proxy wants no log-in
    std::string password;  // not used without a user
};

/* The stored setting, which knows which of its fields have been supplied. A plain record without a lock. */
class MDCH_API HttpProxyInfo
{
public:
    /* Bits of availableFields. */
    enum Field : unsigned int
    {
        kFieldEnabled = 0x01,
        kFieldPort = 0x02,
        kFieldHost = 0x04,
        kFieldAuthenticate = 0x08,
        kFieldUser = 0x10,
        kFieldPassword = 0x20,
        kFieldAll = 0x3f
    };

    /* Disabled, with nothing supplied. A value: copied as a whole. */
    HttpProxyInfo() = default;
    HttpProxyInfo(const HttpProxyInfo&) = default;
    HttpProxyInfo& operator=(const HttpProxyInfo&) = default;

    /* Whether all fields that the flags call for have been supplied. A disabled setting is complete. */
    bool isComplete() const;

    /* Whether both settings have the same effect: two disabled ones always have. */
    bool isEqual(const HttpProxyInfo& other) const;

    /* Marks the fields of mask as supplied, or as not supplied. */
    void setFieldAvailable(unsigned int mask, bool available);

    std::int32_t enabled = 0;          // whether the proxy is used
    std::int32_t port = 80;            // TCP
    std::string host;                  // name or address, without scheme
    std::int32_t authenticate = 0;     // whether user and password are sent
    std::string user;                  // counts when authenticate is set
    std::string password;              // likewise
    std::uint32_t availableFields = 0; // Field bits: what has been supplied
};

/*
 * Replaces the setting. enabled: use the proxy. authenticate: it wants user name and password. Transfers that
 * have been configured keep what they have. Any thread. Always true.
 */
MDCH_API bool setHttpProxyInfo(const httpProxyInfo_struct& info, bool enabled, bool authenticate);

/*
 * Copies the setting out if it is complete and enabled: true. Otherwise false, and info stays as it is.
 * User and password are empty when the proxy wants none. Any thread.
 */
MDCH_API bool getHttpProxyInfo(httpProxyInfo_struct& info);

} // namespace md

#endif
