#include <plexa/znr-error.h>
#include <plexa/znr-http-request.h>
#include <plexa/znr-utils.h>

#include "znr-crypto.h"

#include <algorithm>
#include <cstring>

// Defined here too, so that the DLL exports it: a Windows program that
// binds it to a reference imports it.
constexpr std::int64_t ZNRHttpCookie::NO_EXPIRY;

namespace {

std::uint64_t const kUnixEpochTick = 11644473600000ULL;  // 1970 in ZNRGetSysTick's count

// UTF-8 of s, refusing the characters that would end a header line or the
// C string a peer might keep it in.
std::uint64_t Utf8(ZNRString const& s, std::string* out) {
    out->clear();
    if (!s.ToUtf8Str(out)) return ZNR_ERROR_INVALID_PARAM;
    if (out->find_first_of(std::string("\r\n\0", 3)) != std::string::npos) return ZNR_ERROR_CONTROL_CHAR;
    return 0;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string Lowered(std::string s) {
    for (char& c : s) c = Lower(c);
    return s;
}

bool SameNoCase(std::string const& a, std::string const& b) {
    return a.size() == b.size() && Lowered(a) == Lowered(b);
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool IsUnreserved(char c) {
    return IsAlpha(c) || IsDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

// tchar of RFC 9110.
bool IsToken(std::string const& s) {
    if (s.empty()) return false;
    for (char c : s) {
        if (!IsAlpha(c) && !IsDigit(c) && std::strchr("!#$%&'*+-.^_`|~", c) == nullptr) return false;
    }
    return true;
}

std::string Encode(std::string const& s, char const* also_kept) {
    static char const kHex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : s) {
        if (IsUnreserved(c) || (c != '\0' && std::strchr(also_kept, c) != nullptr)) {
            out += c;
            continue;
        }
        unsigned char const b = static_cast<unsigned char>(c);
        out += '%';
        out += kHex[b >> 4];
        out += kHex[b & 0x0F];
    }
    return out;
}

std::uint64_t BasicCredentials(ZNRString const& user, ZNRString const& password, std::string* out) {
    std::string u;
    std::string p;
    std::uint64_t rc = Utf8(user, &u);
    if (rc == 0) rc = Utf8(password, &p);
    if (rc != 0) return rc;
    if (u.find(':') != std::string::npos) return ZNR_ERROR_INVALID_PARAM;
    std::string const plain = u + ":" + p;
    *out = "Basic " + ZNRBase64Text(plain.data(), static_cast<unsigned int>(plain.size()));
    return 0;
}

std::string Trimmed(std::string const& s) {
    std::size_t const first = s.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

std::string WithoutQuery(std::string const& path) { return path.substr(0, path.find('?')); }

// The directory of the request path, for cookies without Path.
std::string DefaultPath(std::string const& request_path) {
    std::string const path = WithoutQuery(request_path);
    std::size_t const slash = path.rfind('/');
    if (path.empty() || path[0] != '/' || slash == 0) return "/";
    return path.substr(0, slash);
}

bool IsIpAddress(std::string const& host) {
    if (host.find(':') != std::string::npos) return true;
    std::size_t const dot = host.rfind('.');
    std::string const last = host.substr(dot == std::string::npos ? 0 : dot + 1);
    return !last.empty() && std::all_of(last.begin(), last.end(), IsDigit);
}

bool DomainMatches(std::string const& host, std::string const& domain) {
    std::string const h = Lowered(host);
    std::string const d = Lowered(domain);
    if (h == d) return true;
    if (d.empty() || h.size() <= d.size() || IsIpAddress(h)) return false;
    return h.compare(h.size() - d.size(), d.size(), d) == 0 && h[h.size() - d.size() - 1] == '.';
}

bool PathMatches(std::string const& request_path, std::string const& cookie_path) {
    std::string const path = WithoutQuery(request_path);
    if (path == cookie_path) return true;
    if (cookie_path.empty() || path.compare(0, cookie_path.size(), cookie_path) != 0) return false;
    return cookie_path.back() == '/' || path[cookie_path.size()] == '/';
}

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, unsigned int m, unsigned int d) {
    y -= m <= 2;
    std::int64_t const era = (y >= 0 ? y : y - 399) / 400;
    std::int64_t const yoe = y - era * 400;
    std::int64_t const doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    std::int64_t const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// Leading digits of t (min to max of them) followed by no further digit.
bool Digits(std::string const& t, std::size_t min, std::size_t max, unsigned int* value,
            std::size_t* used = nullptr) {
    std::size_t n = 0;
    unsigned int v = 0;
    while (n < t.size() && IsDigit(t[n]) && n < max) v = v * 10 + static_cast<unsigned int>(t[n++] - '0');
    if (n < min || (n < t.size() && IsDigit(t[n]))) return false;
    *value = v;
    if (used != nullptr) *used = n;
    return true;
}

// 1 to 12 for a token starting with a month's name, else 0.
unsigned int MonthOf(std::string const& token) {
    static char const kMonths[] = "janfebmaraprmayjunjulaugsepoctnovdec";
    if (token.size() < 3) return 0;
    std::string const head = Lowered(token.substr(0, 3));
    for (unsigned int m = 0; m < 12; ++m) {
        if (head.compare(0, 3, kMonths + 3 * m, 3) == 0) return m + 1;
    }
    return 0;
}

// The cookie-date algorithm of RFC 6265, section 5.1.1.
bool ParseCookieDate(std::string const& text, std::int64_t* out) {
    auto delimiter = [](char c) {
        unsigned char const u = static_cast<unsigned char>(c);
        return u == 0x09 || (u >= 0x20 && u <= 0x2F) || (u >= 0x3B && u <= 0x40) ||
               (u >= 0x5B && u <= 0x60) || (u >= 0x7B && u <= 0x7E);
    };
    bool has_time = false, has_day = false, has_month = false, has_year = false;
    unsigned int hour = 0, minute = 0, second = 0, day = 0, month = 0, year = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && delimiter(text[i])) ++i;
        std::size_t j = i;
        while (j < text.size() && !delimiter(text[j])) ++j;
        std::string const token = text.substr(i, j - i);
        i = j;
        if (token.empty()) continue;
        std::size_t a = 0, b = 0;
        unsigned int h = 0, m = 0, s = 0;
        if (!has_time && Digits(token, 1, 2, &h, &a) && a < token.size() && token[a] == ':' &&
            Digits(token.substr(a + 1), 1, 2, &m, &b) && a + 1 + b < token.size() &&
            token[a + 1 + b] == ':' && Digits(token.substr(a + 2 + b), 1, 2, &s)) {
            has_time = true;
            hour = h, minute = m, second = s;
        } else if (!has_day && Digits(token, 1, 2, &day)) {
            has_day = true;
        } else if (!has_month && MonthOf(token) != 0) {
            has_month = true;
            month = MonthOf(token);
        } else if (!has_year && Digits(token, 2, 4, &year)) {
            has_year = true;
        }
    }
    if (!has_time || !has_day || !has_month || !has_year) return false;
    if (year >= 70 && year <= 99) year += 1900;
    if (year <= 69) year += 2000;
    if (day < 1 || day > 31 || year < 1601 || hour > 23 || minute > 59 || second > 59) return false;
    static unsigned int const kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (day > kMonthDays[month - 1] + (month == 2 && leap ? 1 : 0)) return false;
    std::int64_t const days = DaysFromCivil(year, month, day);
    *out = days * 86400 + hour * 3600 + minute * 60 + second;
    return true;
}

std::string ToUtf8(ZNRString const& s) {
    std::string out;
    s.ToUtf8Str(&out);
    return out;
}

ZNRString FromUtf8(std::string const& s) {
    ZNRString out;
    out.NewFromUtf8Str(s);
    return out;
}

}  // namespace

ZNRHttpCookie::ZNRHttpCookie()
    : expires_(NO_EXPIRY), secure_(false), http_only_(false), host_only_(true) {}

ZNRHttpCookie::~ZNRHttpCookie() {}

std::uint64_t ZNRHttpCookie::Parse(ZNRString const& line, ZNRString const& request_host,
                                   ZNRString const& request_path, std::int64_t now) {
    std::string text;
    std::string host;
    std::string request;
    std::uint64_t rc = Utf8(line, &text);
    if (rc == 0) rc = Utf8(request_host, &host);
    if (rc == 0) rc = Utf8(request_path, &request);
    if (rc != 0) return rc;
    static char const kPrefix[] = "set-cookie:";
    if (Lowered(text.substr(0, sizeof kPrefix - 1)) == kPrefix) text.erase(0, sizeof kPrefix - 1);

    std::size_t const semicolon = text.find(';');
    std::string const pair = text.substr(0, semicolon);
    std::size_t const eq = pair.find('=');
    if (eq == std::string::npos) return ZNR_ERROR_INVALID_PARAM;
    std::string const name = Trimmed(pair.substr(0, eq));
    if (name.empty()) return ZNR_ERROR_INVALID_PARAM;

    ZNRHttpCookie c;
    *c.name_ = name;
    *c.value_ = Trimmed(pair.substr(eq + 1));
    bool has_max_age = false;
    std::string domain;
    std::size_t pos = semicolon;
    while (pos != std::string::npos) {
        std::size_t const next = text.find(';', pos + 1);
        std::string const av = text.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1);
        pos = next;
        std::size_t const av_eq = av.find('=');
        std::string const key = Lowered(Trimmed(av.substr(0, av_eq)));
        std::string const value = av_eq == std::string::npos ? std::string() : Trimmed(av.substr(av_eq + 1));
        std::int64_t when = 0;
        if (key == "expires") {
            if (!has_max_age && ParseCookieDate(value, &when)) c.expires_ = when;
        } else if (key == "max-age") {
            std::string const digits = !value.empty() && value[0] == '-' ? value.substr(1) : value;
            if (digits.empty() || !std::all_of(digits.begin(), digits.end(), IsDigit)) continue;
            has_max_age = true;
            // Beyond 18 digits the sum could overflow; such a cookie lasts forever anyway.
            if (value[0] == '-' || digits.find_first_not_of('0') == std::string::npos) c.expires_ = INT64_MIN;
            else if (digits.size() > 18) c.expires_ = NO_EXPIRY;
            else c.expires_ = now + std::stoll(digits);
        } else if (key == "domain") {
            if (!value.empty()) domain = Lowered(value[0] == '.' ? value.substr(1) : value);
        } else if (key == "path") {
            *c.path_ = !value.empty() && value[0] == '/' ? value : DefaultPath(request);
        } else if (key == "secure") {
            c.secure_ = true;
        } else if (key == "httponly") {
            c.http_only_ = true;
        }
    }
    if (!domain.empty()) {
        if (!DomainMatches(host, domain)) return ZNR_ERROR_INVALID_PARAM;
        c.host_only_ = false;
        *c.domain_ = domain;
    } else {
        *c.domain_ = Lowered(host);
    }
    if (c.path_->empty()) *c.path_ = DefaultPath(request);
    *this = c;
    return 0;
}

ZNRString ZNRHttpCookie::GetName() const { return FromUtf8(*name_); }
ZNRString ZNRHttpCookie::GetValue() const { return FromUtf8(*value_); }
ZNRString ZNRHttpCookie::GetDomain() const { return FromUtf8(*domain_); }
ZNRString ZNRHttpCookie::GetPath() const { return FromUtf8(*path_); }

bool ZNRHttpCookie::Matches(ZNRString const& host, ZNRString const& path, bool secure,
                            std::int64_t now) const {
    return MatchesUtf8(ToUtf8(host), ToUtf8(path), secure, now);
}

bool ZNRHttpCookie::MatchesUtf8(std::string const& host, std::string const& path, bool secure,
                                std::int64_t now) const {
    if (name_->empty() || IsExpired(now) || (secure_ && !secure)) return false;
    bool const host_ok = host_only_ ? SameNoCase(host, *domain_) : DomainMatches(host, *domain_);
    return host_ok && PathMatches(path, *path_);
}

bool ZNRHttpCookie::DomainMatch(ZNRString const& host, ZNRString const& domain) {
    return DomainMatches(ToUtf8(host), ToUtf8(domain));
}

bool ZNRHttpCookie::PathMatch(ZNRString const& request_path, ZNRString const& cookie_path) {
    return PathMatches(ToUtf8(request_path), ToUtf8(cookie_path));
}

ZNRHttpRequest::ZNRHttpRequest()
    : range_first_(0), range_last_(0), range_kind_(RANGE_NONE), port_(0), secure_(false),
      absolute_form_(false), has_body_(false) {
    *method_ = "GET";
    *path_ = "/";
}

ZNRHttpRequest::~ZNRHttpRequest() {}

std::uint64_t ZNRHttpRequest::SetMethod(ZNRString const& method) {
    std::string m;
    std::uint64_t const rc = Utf8(method, &m);
    if (rc != 0) return rc;
    if (!IsToken(m)) return ZNR_ERROR_INVALID_PARAM;
    *method_ = m;
    return 0;
}

std::uint64_t ZNRHttpRequest::SetHost(ZNRString const& host, unsigned short port, bool secure) {
    std::string h;
    std::uint64_t const rc = Utf8(host, &h);
    if (rc != 0) return rc;
    if (h.empty() || h.find_first_of(" \t/?#@") != std::string::npos) return ZNR_ERROR_INVALID_PARAM;
    // Two colons or more make an IPv6 address; one would be a port, which has its own argument.
    auto const colons = std::count(h.begin(), h.end(), ':');
    if (colons == 1) return ZNR_ERROR_INVALID_PARAM;
    if (colons > 1 && h[0] != '[') h = "[" + h + "]";
    *host_ = h;
    port_ = port;
    secure_ = secure;
    return 0;
}

std::uint64_t ZNRHttpRequest::SetPath(ZNRString const& path) {
    std::string p;
    std::uint64_t const rc = Utf8(path, &p);
    if (rc != 0) return rc;
    if (p.empty() || p[0] != '/') return ZNR_ERROR_INVALID_PARAM;
    *path_ = Encode(p, "/:@!$&'()*+,;=");
    return 0;
}

std::uint64_t ZNRHttpRequest::AddQuery(ZNRString const& name, ZNRString const& value) {
    std::string n;
    std::string v;
    std::uint64_t rc = Utf8(name, &n);
    if (rc == 0) rc = Utf8(value, &v);
    if (rc != 0) return rc;
    if (n.empty()) return ZNR_ERROR_INVALID_PARAM;
    if (!query_->empty()) *query_ += '&';
    *query_ += Encode(n, "") + "=" + Encode(v, "");
    return 0;
}

std::uint64_t ZNRHttpRequest::AddHeader(ZNRString const& name, ZNRString const& value) {
    std::string n;
    std::string v;
    std::uint64_t rc = Utf8(name, &n);
    if (rc == 0) rc = Utf8(value, &v);
    if (rc != 0) return rc;
    if (!IsToken(n) || SameNoCase(n, "Host") || SameNoCase(n, "Content-Length")) return ZNR_ERROR_INVALID_PARAM;
    headers_->emplace_back(n, v);
    return 0;
}

std::uint64_t ZNRHttpRequest::SetBasicAuth(ZNRString const& user, ZNRString const& password) {
    return BasicCredentials(user, password, auth_.Get());
}

std::uint64_t ZNRHttpRequest::SetProxyAuth(ZNRString const& user, ZNRString const& password) {
    return BasicCredentials(user, password, proxy_auth_.Get());
}

std::uint64_t ZNRHttpRequest::SetRange(std::uint64_t first, std::uint64_t last) {
    if (last < first) return ZNR_ERROR_INVALID_PARAM;
    range_kind_ = RANGE_SPAN;
    range_first_ = first;
    range_last_ = last;
    return 0;
}

void ZNRHttpRequest::SetRangeFrom(std::uint64_t first) {
    range_kind_ = RANGE_FROM;
    range_first_ = first;
}

std::uint64_t ZNRHttpRequest::SetRangeSuffix(std::uint64_t length) {
    if (length == 0) return ZNR_ERROR_INVALID_PARAM;
    range_kind_ = RANGE_SUFFIX;
    range_last_ = length;
    return 0;
}

void ZNRHttpRequest::ClearRange() { range_kind_ = RANGE_NONE; }

void ZNRHttpRequest::AddCookie(ZNRHttpCookie const& cookie) { cookies_->push_back(cookie); }

void ZNRHttpRequest::SetBody(void const* data, unsigned int size) {
    body_->assign(static_cast<char const*>(data), data != nullptr ? size : 0);
    has_body_ = true;
}

void ZNRHttpRequest::ClearBody() {
    body_->clear();
    has_body_ = false;
}

std::string ZNRHttpRequest::Authority(bool with_default_port) const {
    unsigned short const default_port = secure_ ? 443 : 80;
    unsigned short const port = port_ != 0 ? port_ : default_port;
    if (port == default_port && !with_default_port) return *host_;
    return *host_ + ":" + std::to_string(port);
}

std::uint64_t ZNRHttpRequest::Build(std::string* out, std::int64_t now) const {
    if (out == nullptr || host_->empty()) return ZNR_ERROR_INVALID_PARAM;
    if (now < 0) now = static_cast<std::int64_t>((ZNRGetSysTick() - kUnixEpochTick) / 1000);

    std::vector<std::pair<std::string, std::string>> own;
    if (!auth_->empty()) own.emplace_back("Authorization", *auth_);
    if (!proxy_auth_->empty()) own.emplace_back("Proxy-Authorization", *proxy_auth_);
    if (range_kind_ != RANGE_NONE) {
        std::string const first = range_kind_ == RANGE_SUFFIX ? "" : std::to_string(range_first_);
        std::string const last = range_kind_ == RANGE_FROM ? "" : std::to_string(range_last_);
        own.emplace_back("Range", "bytes=" + first + "-" + last);
    }
    // Longest path first; stable, so equal paths keep the order they were added in.
    std::string const host = Lowered(host_->front() == '[' ? host_->substr(1, host_->size() - 2) : *host_);
    std::vector<ZNRHttpCookie const*> sent;
    for (ZNRHttpCookie const& c : *cookies_) {
        if (c.MatchesUtf8(host, *path_, secure_, now)) sent.push_back(&c);
    }
    std::stable_sort(sent.begin(), sent.end(), [](ZNRHttpCookie const* a, ZNRHttpCookie const* b) {
        return a->path_->size() > b->path_->size();
    });
    if (!sent.empty()) {
        std::string line;
        for (ZNRHttpCookie const* c : sent) {
            if (!line.empty()) line += "; ";
            line += *c->name_ + "=" + *c->value_;
        }
        own.emplace_back("Cookie", line);
    }
    if (has_body_) own.emplace_back("Content-Length", std::to_string(body_->size()));
    for (auto const& mine : own) {
        for (auto const& added : *headers_) {
            if (SameNoCase(mine.first, added.first)) return ZNR_ERROR_INVALID_PARAM;
        }
    }

    std::string target;
    if (*method_ == "CONNECT") {
        target = Authority(true);
    } else {
        if (absolute_form_) target = (secure_ ? "https://" : "http://") + Authority(false);
        target += *path_;
        if (!query_->empty()) target += "?" + *query_;
    }
    std::string text = *method_ + " " + target + " HTTP/1.1\r\nHost: " + Authority(false) + "\r\n";
    for (auto const& h : *headers_) text += h.first + ": " + h.second + "\r\n";
    for (auto const& h : own) text += h.first + ": " + h.second + "\r\n";
    text += "\r\n";
    text += *body_;
    out->swap(text);
    return 0;
}
