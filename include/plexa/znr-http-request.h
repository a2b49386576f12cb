#ifndef PLEXA_ZNR_HTTP_REQUEST_H
#define PLEXA_ZNR_HTTP_REQUEST_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/** @file
 *  Text enters as ZNRString and goes on the wire as UTF-8. Times are Unix
 *  seconds. Library errors: 1 invalid parameter (the condition is named at
 *  each call), 55 a CR, LF or NUL in a field, refused so that no field can
 *  start a header or a message of its own.
 *
 *  Neither class is thread-safe: one thread uses an object at a time; const
 *  members may run on several threads at once. */

/// One cookie as a server set it (RFC 6265 storage model, without the public
/// suffix list). Plain value: copyable.
class ZNR_API ZNRHttpCookie {
public:
    /// GetExpires() of a session cookie.
    static constexpr std::int64_t NO_EXPIRY = INT64_MAX;

    /// Empty, a session cookie.
    ZNRHttpCookie();
    /// Nothing to release.
    virtual ~ZNRHttpCookie();

    /// Parses a Set-Cookie value ("Set-Cookie:" in front is skipped) that came
    /// in the response to a request for request_host and request_path, at
    /// now. Unknown attributes and unreadable Expires or Max-Age values are
    /// ignored; Max-Age wins over Expires. Library error 1: no name=value
    /// pair, an empty name, or a Domain the request host does not match (the
    /// cookie is then left as it was); error 55 for a control character.
    std::uint64_t Parse(ZNRString const& line, ZNRString const& request_host,
                        ZNRString const& request_path, std::int64_t now);

    /// The cookie's name.
    ZNRString GetName() const;
    /// The cookie's value, as sent.
    ZNRString GetValue() const;
    /// Lower case, without a leading dot.
    ZNRString GetDomain() const;
    /// The Path attribute, or the default path of the request.
    ZNRString GetPath() const;
    /// NO_EXPIRY for a session cookie; INT64_MIN after a Max-Age of 0 or less.
    std::int64_t GetExpires() const { return expires_; }
    /// Secure attribute: sent over secure channels only.
    bool IsSecure() const { return secure_; }
    /// HttpOnly attribute.
    bool IsHttpOnly() const { return http_only_; }
    /// No Domain attribute: sent back to the setting host only.
    bool IsHostOnly() const { return host_only_; }
    /// True once now has reached the expiry time.
    bool IsExpired(std::int64_t now) const { return now >= expires_; }

    /// Whether a request for host and path (a query after '?' is ignored),
    /// over a secure channel or not, sends this cookie at now.
    bool Matches(ZNRString const& host, ZNRString const& path, bool secure,
                 std::int64_t now) const;

    /// RFC 6265 domain-match (host names compared without case; an IP
    /// address matches only itself) and path-match.
    static bool DomainMatch(ZNRString const& host, ZNRString const& domain);
    /// RFC 6265 path-match of request_path against cookie_path.
    static bool PathMatch(ZNRString const& request_path, ZNRString const& cookie_path);

private:
    friend class ZNRHttpRequest;

    bool MatchesUtf8(std::string const& host, std::string const& path, bool secure,
                     std::int64_t now) const;

    ZNRStlAdapter<std::string> name_;
    ZNRStlAdapter<std::string> value_;
    ZNRStlAdapter<std::string> domain_;
    ZNRStlAdapter<std::string> path_;
    std::int64_t expires_;
    bool secure_;
    bool http_only_;
    bool host_only_;
};

/// Builds the text of one HTTP/1.1 request. Headers go out in this order:
/// Host, the added headers in the order they were added, Authorization,
/// Proxy-Authorization, Range, Cookie, Content-Length.
class ZNR_API ZNRHttpRequest {
public:
    /// GET of "/", no host yet.
    ZNRHttpRequest();
    /// Nothing to release.
    virtual ~ZNRHttpRequest();

    /// An HTTP token; "GET" by default. CONNECT sends "host:port" as target.
    /// Error 1: not a token.
    std::uint64_t SetMethod(ZNRString const& method);
    /// Host name or address (an IPv6 address gets its brackets). Port 0 is
    /// the default, 80 or 443 with secure; only another port is written in
    /// Host. Secure requests also send Secure cookies. Error 1: an empty host,
    /// one holding blanks, '/', '?', '#' or '@', or exactly one ':' (give the
    /// port apart).
    std::uint64_t SetHost(ZNRString const& host, unsigned short port = 0, bool secure = false);
    /// The path as plain text, "/" by default; written percent-encoded, with
    /// the unreserved characters, '/' and the other path characters of
    /// RFC 3986 (":@!$&'()*+,;=") kept. Error 1: not starting with '/'.
    std::uint64_t SetPath(ZNRString const& path);
    /// Appends name=value to the query, both encoded but for the unreserved
    /// characters. Error 1: empty name.
    std::uint64_t AddQuery(ZNRString const& name, ZNRString const& value);
    /// True: the target is the absolute URI, as a plain HTTP proxy wants it.
    void SetAbsoluteForm(bool absolute) { absolute_form_ = absolute; }

    /// Error 1: the name is not a token, or is Host or Content-Length (the
    /// request writes them itself). The value is sent as given.
    std::uint64_t AddHeader(ZNRString const& name, ZNRString const& value);
    /// Basic credentials; error 1 when the user name holds ':'. Building
    /// fails with error 1 when a header of the same name was added too.
    std::uint64_t SetBasicAuth(ZNRString const& user, ZNRString const& password);
    /// Basic credentials for Proxy-Authorization; errors as SetBasicAuth().
    std::uint64_t SetProxyAuth(ZNRString const& user, ZNRString const& password);
    /// bytes=first-last; error 1 when last < first.
    std::uint64_t SetRange(std::uint64_t first, std::uint64_t last);
    /// bytes=first-
    void SetRangeFrom(std::uint64_t first);
    /// bytes=-length, the last length bytes; error 1 when length is 0.
    std::uint64_t SetRangeSuffix(std::uint64_t length);
    /// No Range header.
    void ClearRange();
    /// Kept; only cookies that match host, path and channel when building are
    /// sent, longest path first.
    void AddCookie(ZNRHttpCookie const& cookie);
    /// The body, sent with its Content-Length (even when empty); size bytes
    /// are copied from data.
    void SetBody(void const* data, unsigned int size);
    /// No body and no Content-Length.
    void ClearBody();

    /// Replaces *out with the request. now (Unix seconds) decides expiry of
    /// cookies; negative means the clock. Error 1: no host set, or a header
    /// both added and set (see SetBasicAuth).
    std::uint64_t Build(std::string* out, std::int64_t now = -1) const;

private:
    enum RangeKind_t { RANGE_NONE, RANGE_SPAN, RANGE_FROM, RANGE_SUFFIX };

    std::string Authority(bool with_default_port) const;

    ZNRStlAdapter<std::string> method_;
    ZNRStlAdapter<std::string> host_;
    ZNRStlAdapter<std::string> path_;
    ZNRStlAdapter<std::string> query_;
    ZNRStlAdapter<std::vector<std::pair<std::string, std::string>>> headers_;
    ZNRStlAdapter<std::string> auth_;
    ZNRStlAdapter<std::string> proxy_auth_;
    ZNRStlAdapter<std::vector<ZNRHttpCookie>> cookies_;
    ZNRStlAdapter<std::string> body_;
    std::uint64_t range_first_;
    std::uint64_t range_last_;
    RangeKind_t range_kind_;
    unsigned short port_;
    bool secure_;
    bool absolute_form_;
    bool has_body_;
};

#endif
